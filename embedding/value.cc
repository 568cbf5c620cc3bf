#include "embedding/value.h"

#include "embedding/key_index.h"

namespace mirn {
namespace {

// Below this a plain search is quicker than an index.
constexpr size_t kSmallMap = 16;

bool sameMap(const ValueMap& left, const ValueMap& right) {
  if (left.size() != right.size()) return false;
  keyElementsVisited() += left.size();
  KeyIndex index(right, right.size() > kSmallMap);
  for (const auto& [key, value] : left) {
    const size_t at = index.find(key);
    if (at == KeyIndex::kNone || !sameKey(value, right[at].second)) return false;
  }
  return true;
}

bool sameList(const ValueList& left, const ValueList& right) {
  if (left.size() != right.size()) return false;
  keyElementsVisited() += left.size();
  for (size_t i = 0; i < left.size(); ++i) {
    if (!sameKey(left[i], right[i])) return false;
  }
  return true;
}

const int64_t* integerOf(const Value& value, int64_t* room) {
  if (const auto* small = std::get_if<int32_t>(&value)) {
    *room = *small;
    return room;
  }
  return std::get_if<int64_t>(&value);
}

}  // namespace

bool sameKey(const Value& left, const Value& right) {
  int64_t left_room = 0;
  int64_t right_room = 0;
  const int64_t* left_integer = integerOf(left, &left_room);
  const int64_t* right_integer = integerOf(right, &right_room);
  if (left_integer != nullptr && right_integer != nullptr) return *left_integer == *right_integer;
  if (left.index() != right.index()) return false;
  if (const ValueList* list = left.asList()) return sameList(*list, *right.asList());
  if (const ValueMap* map = left.asMap()) return sameMap(*map, *right.asMap());
  return static_cast<const Value::Base&>(left) == static_cast<const Value::Base&>(right);
}

}  // namespace mirn
