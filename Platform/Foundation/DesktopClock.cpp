#include "Platform/Foundation/DesktopClock.h"

#define G_SETTINGS_ENABLE_BACKEND
#include <fcntl.h>
#include <gio/gio.h>
#include <gio/gsettingsbackend.h>
#include <sys/stat.h>

#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "Platform/Runtime/UniqueFd.h"

namespace Platform {
namespace {

constexpr char schemaName[] = "org.gnome.desktop.interface";
constexpr char keyName[] = "clock-format";  // "12h" or "24h"

struct Unref {
  void operator()(void* object) const { g_object_unref(object); }
  void operator()(GVariant* variant) const { g_variant_unref(variant); }
  void operator()(GSettingsSchema* schema) const { g_settings_schema_unref(schema); }
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

// The handle on the desktop's settings, kept since making one costs more than writing a date.
// Values are read from it anew each time.
//
// dconf, which desktops use, answers with what any process has written before. The other keeper of
// settings, a file, looks at it again only in a main loop, which this process may not have: its
// handle is made anew when the file is another one than before.
class Settings {
 public:
  std::optional<ClockChoice> clockChoice() {
    const std::lock_guard lock(mutex_);
    if (!settings_ || (!file_.empty() && versionOf(file_) != version_)) open();
    if (!settings_) return std::nullopt;
    const Owned<GVariant> value(g_settings_get_user_value(settings_.get(), keyName));
    if (!value || !g_variant_is_of_type(value.get(), G_VARIANT_TYPE_STRING)) return std::nullopt;
    const std::string_view choice = g_variant_get_string(value.get(), nullptr);
    if (choice == "12h") return ClockChoice::twelveHours;
    if (choice == "24h") return ClockChoice::twentyFourHours;
    return std::nullopt;
  }

 private:
  // What tells one version of a file from another: writers replace it.
  struct Version {
    ino_t inode = 0;
    off_t size = 0;
    time_t seconds = 0;
    long nanoseconds = 0;
    friend bool operator==(const Version&, const Version&) = default;
  };

  static Version versionOf(const std::string& path) {
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0) return {};
    return {status.st_ino, status.st_size, status.st_mtim.tv_sec, status.st_mtim.tv_nsec};
  }

  void open() {
    // Without the description of the settings the library would end the process.
    GSettingsSchemaSource* const source = g_settings_schema_source_get_default();
    const Owned<GSettingsSchema> schema(
        source ? g_settings_schema_source_lookup(source, schemaName, TRUE) : nullptr);
    if (!schema || !g_settings_schema_has_key(schema.get(), keyName)) return;
    // Notifications go to a context of our own that nobody runs, so that no main loop of the
    // application touches the handle while another thread reads it.
    const Silence silence;
    g_main_context_push_thread_default(context_);
    if (const Owned<GSettingsBackend> keeper = openKeeper()) {
      settings_.reset(g_settings_new_full(schema.get(), keeper.get(), nullptr));
    }
    g_main_context_pop_thread_default(context_);
  }

  // What keeps the settings; null when it cannot do so here.
  Owned<GSettingsBackend> openKeeper() {
    Owned<GSettingsBackend> keeper(g_settings_backend_get_default());
    const std::string_view kind = G_OBJECT_TYPE_NAME(keeper.get());
    if (kind == "DConfSettingsBackend" && !dconfCanWork()) return nullptr;
    if (kind != "GKeyfileSettingsBackend") return keeper;
    char* file = nullptr;
    g_object_get(keeper.get(), "filename", &file, nullptr);
    const Owned<char> ownedFile(file);
    file_ = file ? file : "";
    version_ = versionOf(file_);
    return Owned<GSettingsBackend>(g_keyfile_settings_backend_new(file_.c_str(), "/", nullptr));
  }

  GMainContext* const context_ = g_main_context_new();
  std::mutex mutex_;
  // Protected by mutex_:
  Owned<GSettings> settings_;
  std::string file_;  // that keeps the settings; empty when something else does
  Version version_;
};

}  // namespace

std::optional<ClockChoice> desktopClockChoice() {
  // Never destroyed: threads may ask until the very end.
  static Settings* const settings = new Settings;
  return settings->clockChoice();
}

}  // namespace Platform
