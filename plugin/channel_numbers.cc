#include "plugin/channel_numbers.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <limits>
#include <string_view>

namespace mirn {
namespace {

template <typename T>
T saturated(double number) {
  if (std::isnan(number)) return 0;
  // The largest double below 2^63 is smaller than the largest int64: compare with the power of two itself.
  const double limit = std::ldexp(1.0, std::numeric_limits<T>::digits);
  if (number >= limit) return std::numeric_limits<T>::max();
  if (number <= -limit) return std::numeric_limits<T>::min();
  return static_cast<T>(number);
}

bool isBlank(char letter) {
  return letter == ' ' || (letter >= '\t' && letter <= '\r');
}

// Blanks, a sign, decimal digits; what follows them is not looked at.
int64_t leadingNumber(std::string_view text) {
  const auto start = std::find_if_not(text.begin(), text.end(), isBlank);
  text.remove_prefix(static_cast<size_t>(start - text.begin()));
  const bool negative = text.starts_with('-');
  if (negative || text.starts_with('+')) text.remove_prefix(1);
  if (text.starts_with('-')) return 0;  // from_chars would take a second sign
  int64_t number = 0;
  const auto parsed = std::from_chars(text.data(), text.data() + text.size(), number);
  if (parsed.ec == std::errc::result_out_of_range) {
    return negative ? std::numeric_limits<int64_t>::min() : std::numeric_limits<int64_t>::max();
  }
  return negative ? -number : number;
}

}  // namespace

int64_t channelInt64(const ValueView& value) {
  switch (value.kind()) {
    case ValueKind::kInt32:
    case ValueKind::kInt64:
      return value.integer();
    case ValueKind::kDouble:
      return saturated<int64_t>(value.number());
    case ValueKind::kBool:
      return value.boolean() ? 1 : 0;
    case ValueKind::kText:
      return leadingNumber(value.text());
    default:
      return 0;
  }
}

int32_t channelInt32(const ValueView& value) {
  switch (value.kind()) {
    case ValueKind::kInt32:
    case ValueKind::kInt64:
      return static_cast<int32_t>(static_cast<uint32_t>(value.integer()));
    case ValueKind::kDouble:
      return saturated<int32_t>(value.number());
    case ValueKind::kText:
      return static_cast<int32_t>(std::clamp<int64_t>(leadingNumber(value.text()), std::numeric_limits<int32_t>::min(),
                                                      std::numeric_limits<int32_t>::max()));
    default:
      return static_cast<int32_t>(channelInt64(value));
  }
}

}  // namespace mirn
