#include "embedding/key_index.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <random>
#include <type_traits>

namespace mirn {
namespace {

uint64_t seed() {
  static const uint64_t value = [] {
    std::random_device device;
    return (static_cast<uint64_t>(device()) << 32) | device() | 1;
  }();
  return value;
}

uint64_t mix(uint64_t hash, uint64_t word) {
  hash = (hash ^ word) * (0x9e3779b97f4a7c15U ^ seed());
  hash ^= hash >> 32;
  hash *= 0xd6e8feb86659fd93U;
  return hash ^ (hash >> 29);
}

uint64_t hashBytes(uint64_t hash, const void* data, size_t size) {
  const auto* bytes = static_cast<const uint8_t*>(data);
  for (; size >= 8; bytes += 8, size -= 8) {
    uint64_t word = 0;
    std::memcpy(&word, bytes, 8);
    hash = mix(hash, word);
  }
  uint64_t rest = size;
  for (size_t i = 0; i < size; ++i) rest = (rest << 8) | bytes[i];
  return mix(hash, rest);
}

// 0.0 and -0.0 are one key.
uint64_t bitsOf(double value) {
  return std::bit_cast<uint64_t>(value == 0 ? 0.0 : value);
}

template <typename T>
uint64_t hashElements(uint64_t hash, const std::vector<T>& elements) {
  if constexpr (std::is_floating_point_v<T>) {
    for (const T element : elements) hash = mix(hash, bitsOf(element));
    return hash;
  } else {
    return hashBytes(hash, elements.data(), elements.size() * sizeof(T));
  }
}

struct Hasher {
  uint64_t hash;

  uint64_t operator()(std::monostate) const { return hash; }
  uint64_t operator()(bool value) const { return mix(hash, value ? 1 : 2); }
  uint64_t operator()(int32_t value) const { return mix(hash, static_cast<uint64_t>(static_cast<int64_t>(value))); }
  uint64_t operator()(int64_t value) const { return mix(hash, static_cast<uint64_t>(value)); }
  uint64_t operator()(double value) const { return mix(hash, bitsOf(value)); }
  uint64_t operator()(const std::string& text) const { return hashBytes(hash, text.data(), text.size()); }
  template <typename T>
  uint64_t operator()(const std::vector<T>& elements) const {
    return hashElements(hash, elements);
  }
  uint64_t operator()(const ValueList& list) const {
    keyElementsVisited() += list.size();
    uint64_t result = hash;
    for (const Value& element : list) result = mix(result, hashKey(element));
    return result;
  }
  // A set: the order of the pairs must not show.
  uint64_t operator()(const ValueMap& map) const {
    keyElementsVisited() += map.size();
    uint64_t sum = 0;
    for (const auto& [key, value] : map) sum += mix(hashKey(key), hashKey(value));
    return mix(hash, sum);
  }
};

// A key with a NaN in it equals nothing, not even itself. Comparing it with itself would tell that too, but maps that
// are keys of maps would then be compared several times at each level, and at the next one several times that.
struct NanFinder {
  bool operator()(double value) const { return std::isnan(value); }
  template <typename T>
  bool operator()(const std::vector<T>& elements) const {
    if constexpr (std::is_floating_point_v<T>) {
      return std::any_of(elements.begin(), elements.end(), [](T element) { return std::isnan(element); });
    }
    return false;
  }
  bool operator()(const ValueList& list) const {
    keyElementsVisited() += list.size();
    return std::any_of(list.begin(), list.end(), anywhere);
  }
  bool operator()(const ValueMap& map) const {
    keyElementsVisited() += map.size();
    return std::any_of(map.begin(), map.end(),
                       [](const auto& pair) { return anywhere(pair.first) || anywhere(pair.second); });
  }
  template <typename T>
  bool operator()(const T&) const {
    return false;
  }

  static bool anywhere(const Value& value) { return std::visit(NanFinder(), static_cast<const Value::Base&>(value)); }
};

uint32_t upperHalf(uint64_t hash) {
  return static_cast<uint32_t>(hash >> 32);
}

}  // namespace

uint64_t& keyElementsVisited() {
  constinit thread_local uint64_t count = 0;
  return count;
}

uint64_t hashKey(const Value& key) {
  // An int32 and an int64 of the same number are one key, so they start alike.
  const size_t kind = std::holds_alternative<int64_t>(key) ? Value(int32_t{0}).index() : key.index();
  return std::visit(Hasher{mix(seed(), kind)}, static_cast<const Value::Base&>(key));
}

KeyIndex::KeyIndex(const ValueMap& map, bool indexed) : map_(map), indexed_(indexed) {
  if (indexed_) beginIndex();
}

void KeyIndex::beginIndex() {
  indexed_ = true;
  rebuild(std::bit_ceil(map_.size() * 2 + 16));
}

size_t KeyIndex::find(const Value& key) {
  if (!indexed_ && (key.asList() != nullptr || key.asMap() != nullptr)) beginIndex();
  if (!indexed_) {
    for (size_t i = 0; i < map_.size(); ++i) {
      if (sameKey(map_[i].first, key)) return i;
    }
    return kNone;
  }
  if (NanFinder::anywhere(key)) return kNone;
  const uint64_t hash = hashKey(key);
  const size_t mask = slots_.size() - 1;
  for (size_t at = hash & mask; slots_[at].used != 0; at = (at + 1) & mask) {
    const size_t position = slots_[at].used - 1;
    if (slots_[at].hash == upperHalf(hash) && sameKey(map_[position].first, key)) return position;
  }
  return kNone;
}

void KeyIndex::appended() {
  if (!indexed_) return;
  if (map_.size() * 2 > slots_.size()) {
    rebuild(slots_.size() * 2);
  } else {
    insert(map_.size() - 1);
  }
}

void KeyIndex::insert(size_t position) {
  // Keys that equal nothing would all hash alike and pile up; nobody can find them anyway.
  if (NanFinder::anywhere(map_[position].first)) return;
  const uint64_t hash = hashKey(map_[position].first);
  const size_t mask = slots_.size() - 1;
  size_t at = hash & mask;
  while (slots_[at].used != 0) at = (at + 1) & mask;
  slots_[at] = {static_cast<uint32_t>(position + 1), upperHalf(hash)};
}

void KeyIndex::rebuild(size_t slots) {
  slots_.assign(slots, {});
  for (size_t i = 0; i < map_.size(); ++i) insert(i);
}

}  // namespace mirn
