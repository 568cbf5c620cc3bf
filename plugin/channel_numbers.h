// What a value on the channel means where a command wants a number. Applications are written in several languages and
// send what they have; nothing is refused.
#pragma once

#include <cstdint>

#include "embedding/standard_codec.h"

namespace mirn {

// Integers modulo 2^32; a double truncated toward zero and saturated (NaN is 0); a boolean as 0 or 1; a text's leading
// decimal number, saturated; anything else 0. An absent key and null are 0 here too: whoever minds asks isAbsent()
// first.
int32_t channelInt32(const ValueView& value);

// The same with 64 bits, integers in full.
int64_t channelInt64(const ValueView& value);

}  // namespace mirn
