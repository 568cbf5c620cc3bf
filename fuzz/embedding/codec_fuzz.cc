// Hostile bytes for the codec: both ways of reading agree with each other and with a plain second decoder; what was
// accepted is written and read back alike.
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "embedding/standard_codec.h"
#include "tests/unit/embedding/plain_decoder.h"

namespace {

using namespace mirn;

void require(bool holds) {
  if (!holds) abort();
}

// Beyond this the plain decoder's search for doubled keys takes too long.
constexpr size_t kLongest = 4096;

void checkMessage(Bytes message) {
  ValueView view;
  Value value;
  const CodecError error = viewMessage(message, &view);
  require(message.empty() || decodeMessage(message, &value) == error);
  if (message.size() <= kLongest) {
    test::PlainDecoder plain(message);
    const bool accepted = plain.value().has_value() && plain.atEnd();
    require(accepted == (error == CodecError::kNone));
  }
  if (error != CodecError::kNone) return;
  const std::vector<uint8_t> again = encodeMessage(value);
  require(encodeMessage(view.toValue()) == again);
  Value back;
  require(decodeMessage(again, &back) == CodecError::kNone);
  require(encodeMessage(back) == again);
  (void)view.isIntegerList();
  (void)view.find("x");
  int64_t element = 0;
  (void)view.integerAt(1, &element);
}

void checkCall(Bytes message) {
  MethodCallView view;
  MethodCall call;
  const CodecError error = viewMethodCall(message, &view);
  require(decodeMethodCall(message, &call) == error);
  if (error != CodecError::kNone) return;
  require(view.method == call.method);
  require(encodeMethodCall(view.method, view.arguments.toValue()) == encodeMethodCall(call.method, call.arguments));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // A copy of exactly this size: a read past its end is seen.
  const std::vector<uint8_t> message(data, data + size);
  checkMessage(message);
  checkCall(message);
  Envelope envelope;
  (void)decodeEnvelope(message, &envelope);
  return 0;
}
