// Values and messages out of a seeded generator.
#pragma once

#include <cstdint>
#include <random>

#include "embedding/value.h"

namespace mirn::test {

inline Value randomValue(std::mt19937& random, int depth = 0) {
  const auto below = [&random](uint32_t limit) { return static_cast<uint32_t>(random() % limit); };
  const auto fill = [&](auto element) {
    std::vector<decltype(element)> result(below(5));
    for (auto& each : result) each = static_cast<decltype(element)>(static_cast<int32_t>(random()));
    return result;
  };
  switch (below(depth < 4 ? 13 : 11)) {
    case 0:
      return {};
    case 1:
      return below(2) == 0;
    case 2:
      return static_cast<int32_t>(random());
    case 3:
      return static_cast<int64_t>((uint64_t{random()} << 32) | random());
    case 4:
      return static_cast<double>(static_cast<int32_t>(random())) / 256;
    case 5:
      return std::string(below(2) == 0 ? below(8) : below(300), static_cast<char>('a' + below(26)));
    case 6:
      return fill(uint8_t{});
    case 7:
      return fill(int32_t{});
    case 8:
      return fill(int64_t{});
    case 9:
      return fill(float{});
    case 10:
      return fill(double{});
    case 11: {
      ValueList list;
      for (uint32_t i = below(5); i > 0; --i) list.push_back(randomValue(random, depth + 1));
      return list;
    }
    default: {
      ValueMap map;
      const uint32_t pairs = below(2) == 0 ? below(5) : below(30);
      for (uint32_t i = 0; i < pairs; ++i) map.emplace_back(static_cast<int32_t>(i), randomValue(random, depth + 1));
      return map;
    }
  }
}

}  // namespace mirn::test
