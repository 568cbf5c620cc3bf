// Finds one of a fixed set of names in a time that does not depend on how many there are: one hash, one displacement,
// one comparison.
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <type_traits>

namespace mirn {

namespace detail {

constexpr uint64_t loadBytes(const char* at, size_t count) {
  uint64_t word = 0;
  if (std::is_constant_evaluated()) {
    for (size_t i = 0; i < count; ++i) word |= static_cast<uint64_t>(static_cast<uint8_t>(at[i])) << (8 * i);
    return word;
  }
  std::memcpy(&word, at, count);
  return word;
}

// Takes in the length, the first eight and the last eight bytes: enough to tell the names of a command table apart.
constexpr uint64_t nameHash(std::string_view name) {
  uint64_t head = 0;
  uint64_t tail = 0;
  if (name.size() >= 8) {
    head = loadBytes(name.data(), 8);
    tail = loadBytes(name.data() + name.size() - 8, 8);
  } else if (name.size() >= 4) {
    head = loadBytes(name.data(), 4);
    tail = loadBytes(name.data() + name.size() - 4, 4);
  } else {
    for (const char letter : name) head = (head << 8) | static_cast<uint8_t>(letter);
  }
  uint64_t hash = (head ^ name.size()) * 0x9e3779b97f4a7c15U;
  hash ^= std::rotl(tail * 0xc2b2ae3d27d4eb4fU, 31);
  hash *= 0xff51afd7ed558ccdU;
  return hash ^ (hash >> 32);
}

}  // namespace detail

// Immutable once built; usable in constant expressions. The names are borrowed.
template <size_t kNames>
class PerfectIndex {
 public:
  static constexpr size_t kNone = kNames;

  constexpr explicit PerfectIndex(const std::array<std::string_view, kNames>& names) : names_(names) { build(); }

  // False when two names could not be told apart (equal, or alike in length, first and last eight bytes): then nothing
  // is found.
  constexpr bool valid() const { return valid_; }

  // The position of `name`, or kNone.
  constexpr size_t find(std::string_view name) const {
    const uint64_t hash = detail::nameHash(name);
    const size_t position = slots_[slotOf(hash, displacements_[hash & (kBuckets - 1)])];
    return position < kNames && names_[position] == name ? position : kNone;
  }

 private:
  static constexpr size_t kSlots = std::bit_ceil(kNames * 2);
  static constexpr size_t kBuckets = std::bit_ceil(kNames / 2 + 1);
  static constexpr uint16_t kMostTries = 4096;

  static constexpr size_t slotOf(uint64_t hash, uint16_t displacement) {
    return ((hash >> 20) + displacement * ((hash >> 40) | 1)) & (kSlots - 1);
  }

  constexpr void build() {
    slots_.fill(kNames);
    std::array<size_t, kBuckets> sizes{};
    for (const std::string_view name : names_) ++sizes[detail::nameHash(name) & (kBuckets - 1)];
    // The fullest buckets first, while there is room.
    const size_t fullest = *std::max_element(sizes.begin(), sizes.end());
    for (size_t size = fullest; size > 0; --size) {
      for (size_t bucket = 0; bucket < kBuckets; ++bucket) {
        if (sizes[bucket] == size && !place(bucket)) return;
      }
    }
    valid_ = true;
  }

  constexpr bool place(size_t bucket) {
    for (uint16_t displacement = 0; displacement < kMostTries; ++displacement) {
      if (tryPlace(bucket, displacement)) return true;
    }
    slots_.fill(kNames);
    return false;
  }

  constexpr bool tryPlace(size_t bucket, uint16_t displacement) {
    std::array<size_t, kNames> taken{};
    size_t count = 0;
    bool fits = true;
    for (size_t i = 0; i < kNames && fits; ++i) {
      const uint64_t hash = detail::nameHash(names_[i]);
      if ((hash & (kBuckets - 1)) != bucket) continue;
      const size_t slot = slotOf(hash, displacement);
      fits = slots_[slot] == kNames;
      if (!fits) continue;
      slots_[slot] = static_cast<uint16_t>(i);
      taken[count++] = slot;
    }
    if (fits) displacements_[bucket] = displacement;
    for (size_t i = 0; i < count && !fits; ++i) slots_[taken[i]] = kNames;
    return fits;
  }

  std::array<std::string_view, kNames> names_;
  std::array<uint16_t, kSlots> slots_{};
  std::array<uint16_t, kBuckets> displacements_{};
  bool valid_ = false;
};

}  // namespace mirn
