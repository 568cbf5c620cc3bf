// Every row of codec_vectors.tsv: both directions, or a refusal.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "embedding/standard_codec.h"
#include "tests/unit/embedding/notation.h"

namespace mirn::test {
namespace {

struct Vector {
  int line = 0;
  std::string kind;
  std::string description;
  std::string hex;
  std::string expected;
};

std::vector<Vector> readVectors() {
  std::ifstream file(MIRN_CODEC_VECTORS);
  std::vector<Vector> vectors;
  int number = 0;
  for (std::string line; std::getline(file, line);) {
    ++number;
    if (line.empty() || line.front() == '#') continue;
    Vector vector{number, {}, {}, {}, {}};
    std::istringstream fields(line);
    std::getline(fields, vector.kind, '\t');
    std::getline(fields, vector.description, '\t');
    std::getline(fields, vector.hex, '\t');
    std::getline(fields, vector.expected, '\t');
    vectors.push_back(vector);
  }
  return vectors;
}

const Value& field(const Value& map, const char* key) {
  static const Value null;
  for (const auto& [name, value] : *map.asMap()) {
    if (name.asText() != nullptr && *name.asText() == key) return value;
  }
  return null;
}

void checkValue(const Vector& vector, const std::vector<uint8_t>& bytes, const Value& expected, bool both) {
  Value decoded;
  EXPECT_EQ(decodeMessage(bytes, &decoded), CodecError::kNone);
  EXPECT_TRUE(alike(decoded, expected)) << toHex(encodeMessage(decoded));
  if (both) {
    EXPECT_EQ(toHex(encodeMessage(expected)), vector.hex);
  }
}

void checkMethodCall(const Vector& vector, const std::vector<uint8_t>& bytes, const Value& expected, bool both) {
  MethodCall decoded;
  EXPECT_EQ(decodeMethodCall(bytes, &decoded), CodecError::kNone);
  EXPECT_EQ(decoded.method, *field(expected, "method").asText());
  EXPECT_TRUE(alike(decoded.arguments, field(expected, "args")));
  if (both) {
    EXPECT_EQ(toHex(encodeMethodCall(decoded.method, field(expected, "args"))), vector.hex);
  }
}

void checkSuccess(const Vector& vector, const std::vector<uint8_t>& bytes, const Value& expected, bool both) {
  Envelope decoded;
  EXPECT_EQ(decodeEnvelope(bytes, &decoded), CodecError::kNone);
  EXPECT_EQ(decoded.kind, Envelope::Kind::kSuccess);
  EXPECT_TRUE(alike(decoded.result, expected));
  if (both) {
    EXPECT_EQ(toHex(encodeSuccess(expected)), vector.hex);
  }
}

void checkError(const Vector& vector, const std::vector<uint8_t>& bytes, const Value& expected, bool both) {
  Envelope decoded;
  EXPECT_EQ(decodeEnvelope(bytes, &decoded), CodecError::kNone);
  EXPECT_EQ(decoded.kind, Envelope::Kind::kError);
  EXPECT_EQ(decoded.code, *field(expected, "code").asText());
  EXPECT_TRUE(alike(decoded.message, field(expected, "message")));
  EXPECT_TRUE(alike(decoded.details, field(expected, "details")));
  if (both) {
    EXPECT_EQ(toHex(encodeError(decoded.code, decoded.message, field(expected, "details"))), vector.hex);
  }
}

void checkMalformed(const Vector& vector, const std::vector<uint8_t>& bytes) {
  Value value;
  MethodCall call;
  Envelope envelope;
  MethodCallView view;
  ASSERT_EQ(vector.expected, "error");
  if (vector.description.starts_with("[value]")) {
    EXPECT_NE(decodeMessage(bytes, &value), CodecError::kNone);
  } else if (vector.description.starts_with("[method_call]")) {
    EXPECT_NE(decodeMethodCall(bytes, &call), CodecError::kNone);
    EXPECT_NE(viewMethodCall(bytes, &view), CodecError::kNone);
  } else {
    ASSERT_TRUE(vector.description.starts_with("[envelope]"));
    EXPECT_NE(decodeEnvelope(bytes, &envelope), CodecError::kNone);
  }
}

TEST(CodecVectors, EveryRowHolds) {
  const std::vector<Vector> vectors = readVectors();
  ASSERT_GE(vectors.size(), 117U);
  for (const Vector& vector : vectors) {
    SCOPED_TRACE("line " + std::to_string(vector.line) + ": " + vector.kind + " " + vector.description);
    const std::vector<uint8_t> bytes = parseHex(vector.hex);
    if (vector.kind == "malformed") {
      checkMalformed(vector, bytes);
      continue;
    }
    const Value expected = parseNotation(vector.expected);
    const bool both = vector.description.starts_with("[enc+dec]");
    if (vector.kind == "value") checkValue(vector, bytes, expected, both);
    if (vector.kind == "method_call") checkMethodCall(vector, bytes, expected, both);
    if (vector.kind == "success") checkSuccess(vector, bytes, expected, both);
    if (vector.kind == "error") checkError(vector, bytes, expected, both);
  }
}

TEST(CodecVectors, ARowCutShortAnywhereIsRefused) {
  for (const Vector& vector : readVectors()) {
    if (vector.kind != "value" && vector.kind != "method_call") continue;
    SCOPED_TRACE("line " + std::to_string(vector.line));
    const std::vector<uint8_t> bytes = parseHex(vector.hex);
    for (size_t length = 1; length < bytes.size(); ++length) {
      // A copy of exactly this size: an address sanitizer sees a read past its end.
      const std::vector<uint8_t> cut(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(length));
      Value value;
      MethodCall call;
      const CodecError error = vector.kind == "value" ? decodeMessage(cut, &value) : decodeMethodCall(cut, &call);
      EXPECT_EQ(error, CodecError::kOutOfData) << "cut to " << length;
    }
  }
}

}  // namespace
}  // namespace mirn::test
