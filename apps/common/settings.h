// What the console remembers, in a key file under the person's XDG configuration directory.
#pragma once

#include <string>

#include "apps/common/pointer_map.h"

namespace mirn {

struct ConsoleSettings {
  std::string quality = "1080P";  // "720P" or "1080P"
  bool best_color = false;
  Scaling scaling = Scaling::kSharp;
  bool overlay = false;
  bool device_panel = false;
  std::string theme = "system";  // "system", "light", "dark"
  std::string release_key =
      "rightctrl";            // tapped alone, it gives the keyboard back: "rightctrl", "pause", "scrolllock"
  std::string layout = "us";  // of the target, for pasting
  int window_width = 1280;    // logical pixels
  int window_height = 800;
  bool maximized = false;
  std::string screenshot_folder;  // empty: the person's Pictures folder
  std::string firmware_folder;    // where the last upgrade file was

  bool operator==(const ConsoleSettings&) const = default;
};

// $XDG_CONFIG_HOME/mirn-console/settings.ini, by default below ~/.config.
std::string settingsPath();

// Values that are missing or make no sense keep their defaults; a missing file gives all defaults. Never fails.
ConsoleSettings loadSettings(const std::string& path);
// Creates the folders it needs (mode 0700) and replaces the file in one step. False with one line in `error`.
bool saveSettings(const std::string& path, const ConsoleSettings& settings, std::string* error);

}  // namespace mirn
