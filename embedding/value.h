// A value as the standard message codec knows it: what travels in calls and replies.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace mirn {

class Value;

using ValueList = std::vector<Value>;

// Pairs in wire order; keys may be of any kind. A decoded map holds each key once.
using ValueMap = std::vector<std::pair<Value, Value>>;

// Owns what it holds; copied deeply. Reentrant: no two threads may use one Value at the same time unless all only read.
// The alternative decides the tag that is written: int32_t is always tag 3 and int64_t always tag 4.
class Value : public std::variant<std::monostate, bool, int32_t, int64_t, double, std::string, std::vector<uint8_t>,
                                  std::vector<int32_t>, std::vector<int64_t>, std::vector<double>, ValueList, ValueMap,
                                  std::vector<float>> {
 public:
  using Base = std::variant<std::monostate, bool, int32_t, int64_t, double, std::string, std::vector<uint8_t>,
                            std::vector<int32_t>, std::vector<int64_t>, std::vector<double>, ValueList, ValueMap,
                            std::vector<float>>;
  using Base::Base;
  using Base::operator=;

  Value() = default;
  Value(const char* text) : Base(std::string(text)) {}  // NOLINT(google-explicit-constructor): reads like a literal
  Value(std::string_view text)
      : Base(std::string(text)) {}  // NOLINT(google-explicit-constructor): reads like a literal

  bool isNull() const { return std::holds_alternative<std::monostate>(*this); }

  // The text, or nullptr when the value is something else.
  const std::string* asText() const { return std::get_if<std::string>(static_cast<const Base*>(this)); }
  // The pairs, or nullptr when the value is no map.
  const ValueMap* asMap() const { return std::get_if<ValueMap>(static_cast<const Base*>(this)); }
  // The elements, or nullptr when the value is no generic list.
  const ValueList* asList() const { return std::get_if<ValueList>(static_cast<const Base*>(this)); }
};

// Whether two values are one key of a map, as the application's side sees it: an int32 and an int64 of the same number
// are equal, an integer and a double never; lists compare element by element, maps as sets; NaN equals nothing.
bool sameKey(const Value& left, const Value& right);

}  // namespace mirn
