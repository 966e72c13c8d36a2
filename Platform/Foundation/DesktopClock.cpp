#include "Platform/Foundation/DesktopClock.h"

#define G_SETTINGS_ENABLE_BACKEND
#include <gio/gio.h>
#include <gio/gsettingsbackend.h>
#include <sys/stat.h>

#include <memory>
#include <mutex>
#include <string>
#include <string_view>

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

// While one lives, the settings' libraries do not write to standard error what they miss: a folder
// they cannot make, once for every reading.
class Silence {
 public:
  Silence() {
    for (std::size_t i = 0; i < std::size(domains); ++i) {
      handlers_[i] = g_log_set_handler(
          domains[i], static_cast<GLogLevelFlags>(G_LOG_LEVEL_MASK),
          [](const char*, GLogLevelFlags, const char*, void*) {}, nullptr);
    }
  }
  ~Silence() {
    for (std::size_t i = 0; i < std::size(domains); ++i) {
      g_log_remove_handler(domains[i], handlers_[i]);
    }
  }
  Silence(const Silence&) = delete;
  Silence& operator=(const Silence&) = delete;

 private:
  static constexpr const char* domains[] = {"dconf", "GLib-GIO"};
  guint handlers_[std::size(domains)];
};

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
    const Silence silence;
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
    g_main_context_push_thread_default(context_);
    if (file_.empty()) {
      settings_.reset(g_settings_new_full(schema.get(), nullptr, nullptr));
      file_ = settingsFile();
    }
    if (!file_.empty()) {
      version_ = versionOf(file_);
      const Owned<GSettingsBackend> keeper(
          g_keyfile_settings_backend_new(file_.c_str(), "/", nullptr));
      settings_.reset(g_settings_new_full(schema.get(), keeper.get(), nullptr));
    }
    g_main_context_pop_thread_default(context_);
  }

  // Empty when something else than a file keeps the settings.
  std::string settingsFile() const {
    GSettingsBackend* keeper = nullptr;
    g_object_get(settings_.get(), "backend", &keeper, nullptr);
    const Owned<GSettingsBackend> owned(keeper);
    if (std::string_view(G_OBJECT_TYPE_NAME(keeper)) != "GKeyfileSettingsBackend") return {};
    char* file = nullptr;
    g_object_get(keeper, "filename", &file, nullptr);
    const Owned<char> ownedFile(file);
    return file ? file : std::string();
  }

  GMainContext* const context_ = g_main_context_new();
  std::mutex mutex_;
  // Protected by mutex_:
  Owned<GSettings> settings_;
  std::string file_;
  Version version_;
};

}  // namespace

std::optional<ClockChoice> desktopClockChoice() {
  // Never destroyed: threads may ask until the very end.
  static Settings* const settings = new Settings;
  return settings->clockChoice();
}

}  // namespace Platform
