// Whether bytes are text that every application can show.
#pragma once

#include <string_view>

namespace mirn {

// Strict: no overlong forms, no surrogates, nothing above U+10FFFF, no sequence cut short. True for an empty text.
bool isValidUtf8(std::string_view text);

}  // namespace mirn
