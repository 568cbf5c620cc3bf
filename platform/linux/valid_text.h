// Texts of the kernel as an application can take them: the channel's texts are UTF-8 or break their reader.
#pragma once

#include <string>
#include <string_view>

namespace mirn {

// `text` as valid UTF-8. The kernel cuts names at a number of bytes, be it in the middle of a character: what is left
// of such a one at the end goes. Every other byte that belongs to no character becomes U+FFFD.
std::string validText(std::string_view text);

}  // namespace mirn
