// Reads the value notation of codec_vectors.tsv (JSON with typed lists, keys of any kind, NaN and Infinity).
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "embedding/value.h"

namespace mirn::test {

// Integers become int32 where they fit, else int64. Throws std::runtime_error with the offset on bad notation.
Value parseNotation(std::string_view text);

// Throws on bad hex.
std::vector<uint8_t> parseHex(std::string_view hex);
std::string toHex(const std::vector<uint8_t>& bytes);

// As the application's side compares: int32 5 and int64 5 are alike, NaN is alike NaN, -0.0 and 0.0 differ, maps in
// order.
bool alike(const Value& left, const Value& right);

}  // namespace mirn::test
