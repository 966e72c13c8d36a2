#include "Platform/Foundation/DesktopClock.h"

#define G_SETTINGS_ENABLE_BACKEND
#include <fcntl.h>
#include <gio/gio.h>
#include <gio/gsettingsbackend.h>

#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "Platform/Runtime/UniqueFd.h"

#if defined(__SANITIZE_THREAD__)
// GLib's locks are its own, and the sanitizer does not see them: what GLib's threads share by them
// would look like races.
extern "C" const char* __tsan_default_suppressions() {
  return "called_from_lib:libglib-2.0.so\ncalled_from_lib:libgio-2.0.so\n"
         "called_from_lib:libgobject-2.0.so\ncalled_from_lib:libdconfsettings.so\n";
}
#endif

namespace Platform {
namespace {

constexpr char schemaName[] = "org.gnome.desktop.interface";
constexpr char keyName[] = "clock-format";  // "12h" or "24h"

struct Unref {
  void operator()(void* object) const { g_object_unref(object); }
  void operator()(GVariant* variant) const { g_variant_unref(variant); }
  void operator()(GSettingsSchema* schema) const { g_settings_schema_unref(schema); }
  void operator()(GKeyFile* file) const { g_key_file_unref(file); }
  void operator()(char* text) const { g_free(text); }
};
template <class Object>
using Owned = std::unique_ptr<Object, Unref>;

// While one lives, the library does not write to standard error what it misses.
class Silence {
 public:
  Silence()
      : handler_(g_log_set_handler(
            domain, static_cast<GLogLevelFlags>(G_LOG_LEVEL_MASK),
            [](const char*, GLogLevelFlags, const char*, void*) {}, nullptr)) {}
  ~Silence() { g_log_remove_handler(domain, handler_); }
  Silence(const Silence&) = delete;
  Silence& operator=(const Silence&) = delete;

 private:
  static constexpr char domain[] = "GLib-GIO";
  const guint handler_;
};

// Whether dconf can make the file by which its writers tell its readers of changes. Where it
// cannot, it says so on standard error at each reading, and cannot be kept from it.
bool dconfCanWork() {
  const std::string folder = std::string(g_get_user_runtime_dir()) + "/dconf";
  if (g_mkdir_with_parents(folder.c_str(), 0700) != 0) return false;
  const UniqueFd file(::open((folder + "/user").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
  return file.isValid();
}

std::optional<ClockChoice> choiceOf(GVariant* value) {
  if (!value || !g_variant_is_of_type(value, G_VARIANT_TYPE_STRING)) return std::nullopt;
  const std::string_view choice = g_variant_get_string(value, nullptr);
  if (choice == "12h") return ClockChoice::twelveHours;
  if (choice == "24h") return ClockChoice::twentyFourHours;
  return std::nullopt;
}

// The handle on the desktop's settings, kept since making one costs more than writing a date.
// Values are read anew each time.
//
// dconf, which desktops use, answers with what any process has written before. The library's other
// way, which it takes without dconf, is a file that it reads again only when a main loop runs,
// which this process need not have: so that file is read here.
class Settings {
 public:
  std::optional<ClockChoice> clockChoice() {
    const std::lock_guard lock(mutex_);
    if (!settings_ && file_.empty()) open();
    if (!file_.empty()) return choiceInFile();
    if (!settings_) return std::nullopt;
    const Owned<GVariant> value(g_settings_get_user_value(settings_.get(), keyName));
    return choiceOf(value.get());
  }

 private:
  void open() {
    // Without the description of the settings the library would end the process.
    GSettingsSchemaSource* const source = g_settings_schema_source_get_default();
    const Owned<GSettingsSchema> schema(
        source ? g_settings_schema_source_lookup(source, schemaName, TRUE) : nullptr);
    if (!schema || !g_settings_schema_has_key(schema.get(), keyName)) return;
    const Silence silence;
    // Notifications go to a context of our own that nobody runs, so that no main loop of the
    // application touches the handle while another thread reads it.
    g_main_context_push_thread_default(context_);
    const Owned<GSettingsBackend> keeper(g_settings_backend_get_default());
    const std::string_view kind = G_OBJECT_TYPE_NAME(keeper.get());
    if (kind == "GKeyfileSettingsBackend") {
      char* file = nullptr;
      g_object_get(keeper.get(), "filename", &file, nullptr);
      const Owned<char> ownedFile(file);
      file_ = file ? file : "";
    } else if (kind != "DConfSettingsBackend" || dconfCanWork()) {
      settings_.reset(g_settings_new_full(schema.get(), keeper.get(), nullptr));
    }
    g_main_context_pop_thread_default(context_);
  }

  // A group for each path of settings, and values in the text form of GVariant.
  std::optional<ClockChoice> choiceInFile() const {
    const Owned<GKeyFile> file(g_key_file_new());
    if (!g_key_file_load_from_file(file.get(), file_.c_str(), G_KEY_FILE_NONE, nullptr)) {
      return std::nullopt;
    }
    const Owned<char> text(
        g_key_file_get_value(file.get(), "org/gnome/desktop/interface", keyName, nullptr));
    if (!text) return std::nullopt;
    const Owned<GVariant> value(g_variant_parse(nullptr, text.get(), nullptr, nullptr, nullptr));
    return choiceOf(value.get());
  }

  GMainContext* const context_ = g_main_context_new();
  std::mutex mutex_;
  // Protected by mutex_; none of the two until there are settings:
  Owned<GSettings> settings_;
  std::string file_;
};

}  // namespace

std::optional<ClockChoice> desktopClockChoice() {
  // Never destroyed: threads may ask until the very end.
  static Settings* const settings = new Settings;
  return settings->clockChoice();
}

}  // namespace Platform
