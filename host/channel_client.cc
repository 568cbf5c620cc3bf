#include "host/channel_client.h"

#include "embedding/standard_codec.h"

namespace mirn {
namespace {

const Value& nullValue() {
  static const Value value;
  return value;
}

template <typename Type>
const Type* valueAs(const CallOutcome& outcome) {
  return outcome.ok() ? std::get_if<Type>(static_cast<const Value::Base*>(&outcome.value)) : nullptr;
}

}  // namespace

bool CallOutcome::asBool(bool fallback) const {
  const bool* held = valueAs<bool>(*this);
  return held != nullptr ? *held : fallback;
}

int64_t CallOutcome::asInt(int64_t fallback) const {
  if (const auto* narrow = valueAs<int32_t>(*this)) {
    return *narrow;
  }
  const auto* wide = valueAs<int64_t>(*this);
  return wide != nullptr ? *wide : fallback;
}

double CallOutcome::asDouble(double fallback) const {
  const auto* held = valueAs<double>(*this);
  return held != nullptr ? *held : fallback;
}

std::string CallOutcome::asText(const std::string& fallback) const {
  const auto* held = valueAs<std::string>(*this);
  return held != nullptr ? *held : fallback;
}

const Value& CallOutcome::at(size_t index) const {
  const auto* list = valueAs<ValueList>(*this);
  return list != nullptr && index < list->size() ? (*list)[index] : nullValue();
}

size_t CallOutcome::listSize() const {
  const auto* list = valueAs<ValueList>(*this);
  return list != nullptr ? list->size() : 0;
}

const Value& CallOutcome::at(std::string_view key) const {
  if (const auto* map = valueAs<ValueMap>(*this)) {
    for (const auto& [name, held] : *map) {
      if (const std::string* text = name.asText(); text != nullptr && *text == key) {
        return held;
      }
    }
  }
  return nullValue();
}

CallOutcome decodeOutcome(ChannelReply reply) {
  CallOutcome outcome;
  switch (reply.kind) {
    case ChannelReply::Kind::kNotImplemented:
      outcome.kind = CallOutcome::Kind::kNotImplemented;
      return outcome;
    case ChannelReply::Kind::kNoReply:
    case ChannelReply::Kind::kPending:
      outcome.kind = CallOutcome::Kind::kNoReply;
      return outcome;
    case ChannelReply::Kind::kReply:
      break;
  }
  Envelope envelope;
  if (decodeEnvelope(reply.bytes, &envelope) != CodecError::kNone) {
    return outcome;
  }
  switch (envelope.kind) {
    case Envelope::Kind::kSuccess:
      outcome.kind = CallOutcome::Kind::kSuccess;
      outcome.value = std::move(envelope.result);
      break;
    case Envelope::Kind::kError:
      outcome.kind = CallOutcome::Kind::kError;
      outcome.code = std::move(envelope.code);
      outcome.message = envelope.message.asText() != nullptr ? *envelope.message.asText() : std::string();
      outcome.details = std::move(envelope.details);
      break;
    case Envelope::Kind::kNotImplemented:
      outcome.kind = CallOutcome::Kind::kNotImplemented;
      break;
  }
  return outcome;
}

ChannelClient::ChannelClient(Engine& engine, std::string channel) : engine_(engine), channel_(std::move(channel)) {}

Value ChannelClient::map(Arguments pairs) {
  ValueMap map;
  for (const auto& [key, value] : pairs) {
    map.emplace_back(Value(key), value);
  }
  return map;
}

CallOutcome ChannelClient::call(std::string_view method, const Value& arguments) {
  return decodeOutcome(engine_.deliver(channel_, encodeMethodCall(method, arguments)));
}

CallOutcome ChannelClient::call(std::string_view method, Arguments arguments) {
  return call(method, map(arguments));
}

void ChannelClient::callLater(std::string_view method, const Value& arguments, Callback done) {
  Engine::ReplyCallback reply;
  if (done != nullptr) {
    reply = [done = std::move(done)](ChannelReply outcome) { done(decodeOutcome(std::move(outcome))); };
  }
  engine_.send(channel_, encodeMethodCall(method, arguments), std::move(reply));
}

void ChannelClient::post(std::string_view method, Arguments arguments) {
  callLater(method, map(arguments), {});
}

}  // namespace mirn
