#include "apps/common/settings.h"

#include <glib.h>
#include <glib/gstdio.h>

#include <cerrno>
#include <initializer_list>
#include <memory>

namespace mirn {
namespace {

constexpr const char* kWindow = "window";
constexpr const char* kPicture = "picture";
constexpr const char* kInput = "input";
constexpr const char* kFiles = "files";

struct KeyFileFree {
  void operator()(GKeyFile* file) const { g_key_file_free(file); }
};
using KeyFile = std::unique_ptr<GKeyFile, KeyFileFree>;

struct GFree {
  void operator()(void* memory) const { g_free(memory); }
};
using Text = std::unique_ptr<char, GFree>;

void readText(GKeyFile* file, const char* group, const char* key, std::string& value) {
  Text text(g_key_file_get_string(file, group, key, nullptr));
  if (text) {
    value = text.get();
  }
}

void readWord(GKeyFile* file, const char* group, const char* key, std::string& value,
              std::initializer_list<const char*> allowed) {
  std::string word;
  readText(file, group, key, word);
  for (const char* candidate : allowed) {
    if (word == candidate) {
      value = word;
    }
  }
}

void readFlag(GKeyFile* file, const char* group, const char* key, bool& value) {
  GError* error = nullptr;
  gboolean flag = g_key_file_get_boolean(file, group, key, &error);
  if (error == nullptr) {
    value = flag != FALSE;
  }
  g_clear_error(&error);
}

void readSize(GKeyFile* file, const char* key, int& value) {
  constexpr int kLeast = 200;
  constexpr int kMost = 16384;
  int size = g_key_file_get_integer(file, kWindow, key, nullptr);
  if (size >= kLeast && size <= kMost) {
    value = size;
  }
}

}  // namespace

std::string settingsPath() {
  Text path(g_build_filename(g_get_user_config_dir(), "mirn-console", "settings.ini", nullptr));
  return path.get();
}

ConsoleSettings loadSettings(const std::string& path) {
  ConsoleSettings settings;
  KeyFile file(g_key_file_new());
  if (g_key_file_load_from_file(file.get(), path.c_str(), G_KEY_FILE_NONE, nullptr) == FALSE) {
    return settings;
  }
  readWord(file.get(), kPicture, "quality", settings.quality, {"720P", "1080P"});
  readFlag(file.get(), kPicture, "best-color", settings.best_color);
  std::string scaling = "sharp";
  readWord(file.get(), kPicture, "scaling", scaling, {"sharp", "fill"});
  settings.scaling = scaling == "fill" ? Scaling::kFill : Scaling::kSharp;
  readFlag(file.get(), kPicture, "overlay", settings.overlay);
  readFlag(file.get(), kWindow, "device-panel", settings.device_panel);
  readWord(file.get(), kWindow, "theme", settings.theme, {"system", "light", "dark"});
  readSize(file.get(), "width", settings.window_width);
  readSize(file.get(), "height", settings.window_height);
  readFlag(file.get(), kWindow, "maximized", settings.maximized);
  readWord(file.get(), kInput, "release-key", settings.release_key, {"rightctrl", "pause", "scrolllock"});
  readWord(file.get(), kInput, "layout", settings.layout, {"us"});
  readText(file.get(), kFiles, "screenshots", settings.screenshot_folder);
  readText(file.get(), kFiles, "firmware", settings.firmware_folder);
  return settings;
}

bool saveSettings(const std::string& path, const ConsoleSettings& settings, std::string* error) {
  KeyFile file(g_key_file_new());
  g_key_file_set_string(file.get(), kPicture, "quality", settings.quality.c_str());
  g_key_file_set_boolean(file.get(), kPicture, "best-color", settings.best_color ? TRUE : FALSE);
  g_key_file_set_string(file.get(), kPicture, "scaling", settings.scaling == Scaling::kFill ? "fill" : "sharp");
  g_key_file_set_boolean(file.get(), kPicture, "overlay", settings.overlay ? TRUE : FALSE);
  g_key_file_set_boolean(file.get(), kWindow, "device-panel", settings.device_panel ? TRUE : FALSE);
  g_key_file_set_string(file.get(), kWindow, "theme", settings.theme.c_str());
  g_key_file_set_integer(file.get(), kWindow, "width", settings.window_width);
  g_key_file_set_integer(file.get(), kWindow, "height", settings.window_height);
  g_key_file_set_boolean(file.get(), kWindow, "maximized", settings.maximized ? TRUE : FALSE);
  g_key_file_set_string(file.get(), kInput, "release-key", settings.release_key.c_str());
  g_key_file_set_string(file.get(), kInput, "layout", settings.layout.c_str());
  g_key_file_set_string(file.get(), kFiles, "screenshots", settings.screenshot_folder.c_str());
  g_key_file_set_string(file.get(), kFiles, "firmware", settings.firmware_folder.c_str());

  Text folder(g_path_get_dirname(path.c_str()));
  constexpr int kPrivate = 0700;
  if (g_mkdir_with_parents(folder.get(), kPrivate) != 0) {
    if (error != nullptr) {
      *error = std::string("Can't create ") + folder.get() + ": " + g_strerror(errno);
    }
    return false;
  }
  GError* failure = nullptr;
  if (g_key_file_save_to_file(file.get(), path.c_str(), &failure) == FALSE) {
    if (error != nullptr) {
      *error = "Can't save the settings: " + std::string(failure->message);
    }
    g_clear_error(&failure);
    return false;
  }
  return true;
}

}  // namespace mirn
