// What a row of the main plug-in's command table says, and the reading of a call's arguments by such a row.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "embedding/method_channel.h"
#include "plugin/channel_numbers.h"

namespace mirn {

class FlutterMirnPluginCApi;

enum class ArgumentType : uint8_t { kInt32, kInt64, kText };

struct Argument {
  std::string_view key;  // empty: no argument
  ArgumentType type = ArgumentType::kInt32;
};

// What happens instead of the command's action.
enum class Instead : uint8_t {
  kForward,      // nothing: the action runs all the same
  kErrorObject,  // "INVALID_ARGUMENT", "arguments must be dictionary"
  kNull,         // success without a value
  kZero,         // the integer 0
  kMinusTwo,     // the integer -2
  kMinusThree,   // the integer -3
  kNoReply,      // nothing is ever answered
};

enum class ReplyKind : uint8_t { kNull, kBool, kInt32, kInt64, kTextList, kIntegerList, kSizeMap, kNoReply };

inline constexpr size_t kMostArguments = 3;

// The arguments of one call by position in the row. Borrows the message.
class CommandArguments {
 public:
  std::array<ValueView, kMostArguments> values;

  int32_t int32(size_t position) const { return channelInt32(values[position]); }
  int64_t int64(size_t position) const { return channelInt64(values[position]); }
  std::string_view text(size_t position) const { return values[position].text(); }
  bool has(size_t position) const { return !values[position].isAbsent(); }
};

struct MainCommand {
  std::string_view name;
  std::array<Argument, kMostArguments> arguments{};
  Instead notDictionary = Instead::kForward;
  Instead keyMissing = Instead::kForward;
  ReplyKind reply = ReplyKind::kNull;
  int32_t failure = 0;  // what an integer reply is when the action fails with an exception
  void (*run)(FlutterMirnPluginCApi& plugin, const CommandArguments& arguments, MethodResult& result) = nullptr;

  constexpr size_t argumentCount() const {
    size_t count = 0;
    while (count < kMostArguments && !arguments[count].key.empty()) ++count;
    return count;
  }
};

}  // namespace mirn
