// What the device's version text says about its abilities.
#pragma once

#include <string_view>

namespace mirn {

// The first firmware knows neither the raw mouse report nor the upgrade greeting. An empty text (the handshake failed)
// counts as a later one: that is meant.
inline bool isFirstFirmware(std::string_view version) {
  return version == "1.0.0";
}

}  // namespace mirn
