// Finds keys in a map of values without comparing each with each. For the codec's own use.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <vector>

#include "embedding/value.h"

namespace mirn {

// An index over the keys of a map that grows while it is being filled. Borrows the map. With `indexed` false it
// searches the map from its head instead, which is better for a few keys, up to the first list or map that it is asked
// for: to compare those pair by pair, at each level of maps that are keys of maps, would take far more than their size.
// Its hash is seeded once for each process, so that a message can't be made to fit it.
class KeyIndex {
 public:
  static constexpr size_t kNone = std::numeric_limits<size_t>::max();

  explicit KeyIndex(const ValueMap& map, bool indexed);

  // The position of an equal key, or kNone.
  size_t find(const Value& key);

  // To be told after a pair was appended to the map.
  void appended();

 private:
  struct Slot {
    uint32_t used = 0;  // position + 1; 0 = free
    uint32_t hash = 0;  // the upper half: only keys that agree in it are compared
  };

  void beginIndex();
  void insert(size_t position);
  void rebuild(size_t slots);

  const ValueMap& map_;
  bool indexed_;
  std::vector<Slot> slots_;  // as many as a power of two
};

// Equal keys have equal hashes.
uint64_t hashKey(const Value& key);

// Elements of generic lists and pairs of maps that hashing and comparing have gone through on this thread so far. Tests
// hold it against the size of what was decoded.
uint64_t& keyElementsVisited();

}  // namespace mirn
