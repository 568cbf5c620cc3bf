// The application's end of a method channel: encodes a call, decodes its answer.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <utility>

#include "embedding/value.h"
#include "host/engine.h"

namespace mirn {

// One answer as an application sees it.
struct CallOutcome {
  enum class Kind : uint8_t {
    kSuccess,         // `value`
    kError,           // `code`, `message`, `details`
    kNotImplemented,  // the empty reply
    kNoReply,         // the command never answers
    kBroken,          // the reply's bytes are no envelope
  };
  Kind kind = Kind::kBroken;
  Value value;
  std::string code;
  std::string message;
  Value details;

  bool ok() const { return kind == Kind::kSuccess; }
  // The value as one type; the fallback when it is of another or the call did not succeed.
  bool asBool(bool fallback = false) const;
  int64_t asInt(int64_t fallback = 0) const;  // of an int32 or an int64
  double asDouble(double fallback = 0) const;
  std::string asText(const std::string& fallback = {}) const;
  // Element of a list; null when there is none.
  const Value& at(size_t index) const;
  size_t listSize() const;  // 0 for everything that is no list
  // Value of a text key of a map; null when there is none.
  const Value& at(std::string_view key) const;
};

CallOutcome decodeOutcome(ChannelReply reply);

// Bound to the platform thread; the engine must outlive it.
class ChannelClient {
 public:
  using Arguments = std::initializer_list<std::pair<std::string_view, Value>>;
  using Callback = std::function<void(CallOutcome outcome)>;

  explicit ChannelClient(Engine& engine, std::string channel = "flutter_mirn");

  // At once, within the call.
  CallOutcome call(std::string_view method, const Value& arguments = {});
  CallOutcome call(std::string_view method, Arguments arguments);
  // As a main-loop task, in order; `done` (may be empty) follows as a later one, with kNoReply for a command that never
  // answers.
  void callLater(std::string_view method, const Value& arguments, Callback done);
  // The same without an answer; for the commands that never give one.
  void post(std::string_view method, Arguments arguments);

  Engine& engine() { return engine_; }

  // {"x": 1, "y": 2} as a map value.
  static Value map(Arguments pairs);

 private:
  Engine& engine_;
  std::string channel_;
};

}  // namespace mirn
