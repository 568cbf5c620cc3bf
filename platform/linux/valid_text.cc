#include "platform/linux/valid_text.h"

#include <glib.h>

namespace mirn {
namespace {

constexpr auto kCutShort = static_cast<gunichar>(-2);  // what GLib says about the beginning of a character
constexpr size_t kLongestBeginning = 3;

std::string_view withoutCutCharacter(std::string_view text) {
  for (size_t bytes = 1; bytes <= kLongestBeginning && bytes <= text.size(); ++bytes) {
    const std::string_view tail = text.substr(text.size() - bytes);
    if (g_utf8_get_char_validated(tail.data(), static_cast<gssize>(tail.size())) == kCutShort) {
      return text.substr(0, text.size() - bytes);
    }
  }
  return text;
}

}  // namespace

std::string validText(std::string_view text) {
  const std::string_view whole = withoutCutCharacter(text);
  gchar* valid = g_utf8_make_valid(whole.data(), static_cast<gssize>(whole.size()));
  std::string result(valid);
  g_free(valid);
  return result;
}

}  // namespace mirn
