#include "device/payloads.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

namespace mirn {
namespace {

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;

std::vector<uint8_t> bytes(std::string_view text) {
  return {text.begin(), text.end()};
}

TEST(Payloads, AMouseRecordIsLittleEndianWithoutItsType) {
  const mouse_args_type mouse{.type = 2, .x = 0x1234, .y = -2, .left = 1, .right = 0, .middle = 1, .wheel = -1};
  EXPECT_THAT(mousePayload(mouse), ElementsAre(0x34, 0x12, 0xFE, 0xFF, 1, 0, 1, 0xFF));
}

TEST(Payloads, AKeyboardRecordPutsTheModifiersFirst) {
  const keyboard_args_type keyboard{.keys = {4, 5, 6, 7, 8, 9}, .modifiers = 0x22};
  EXPECT_THAT(keyboardPayload(keyboard), ElementsAre(0x22, 4, 5, 6, 7, 8, 9));
}

TEST(Payloads, OnlyTheLowByteOfTheLedStatusTravels) {
  EXPECT_THAT(ledPayload({.status = 0xAABBCC01, .param = 0x1234}), ElementsAre(0x01, 0x34, 0x12));
}

TEST(Payloads, ARawMouseReport) {
  const mouse_args_type mouse{.x = 32767, .y = 1, .wheel = 1};
  EXPECT_THAT(rawMousePayload(mouse, 4), ElementsAre(0x01, 4, 1, 0xFF, 0x7F, 1, 0));
}

TEST(Payloads, AFirmwareChunkTravelsWholeAndWithoutItsLength) {
  upgrade_args_ex_type chunk;
  chunk.id = 0x0102;
  chunk.total = 0xF00D;
  chunk.data_len = 3;
  std::memcpy(chunk.data, "abc", 3);
  std::array<uint8_t, kFirmwarePayloadBytes> payload;
  payload.fill(0x5E);
  firmwarePayload(chunk, payload);
  EXPECT_THAT(std::vector<uint8_t>(payload.begin(), payload.begin() + 8),
              ElementsAre(0x02, 0x01, 0x0D, 0xF0, 'a', 'b', 'c', 0));
  EXPECT_EQ(payload.back(), 0);
}

TEST(Payloads, ADeviceNameIsFilledWithZeros) {
  const auto payload = devInfoPayload("Mirn");
  EXPECT_THAT(std::vector<uint8_t>(payload.begin(), payload.begin() + 5), ElementsAre('M', 'i', 'r', 'n', 0));
  EXPECT_EQ(payload.back(), 0);
}

TEST(Payloads, ADeviceNameOfTwentyBytesHasNoTerminator) {
  const std::string name = "12345678901234567890";
  EXPECT_THAT(devInfoPayload(name), ElementsAreArray(bytes(name)));
}

TEST(Payloads, AnAnswersTextEndsAtItsNulOrWithTheAnswer) {
  const std::vector<uint8_t> answer = bytes(std::string_view("1.0.0\0....detail", 16));
  EXPECT_EQ(answerText(answer, 0), "1.0.0");
  EXPECT_EQ(answerText(answer, 10), "detail");
  EXPECT_EQ(answerText(answer, 15), "l");
  EXPECT_EQ(answerText(answer, 16), "");
  EXPECT_EQ(answerText(answer, 1000), "");
  EXPECT_EQ(answerText({}, 0), "");
  EXPECT_EQ(answerText(bytes(std::string(2048, 'x')), 10), std::string(2038, 'x')) << "no limit but the answer's end";
}

TEST(Payloads, AShortInformationAnswerReadsAsIfFollowedByZeros) {
  const _get_dev_info_reply reply = devInfoReply(bytes("Nuvra"));
  EXPECT_STREQ(reply.info_text, "Nuvra");
  EXPECT_EQ(reply.id_text[0], 0);
  EXPECT_EQ(reply.flag, 0);
  EXPECT_EQ(devInfoReply({}).info_text[0], 0);
}

TEST(Payloads, ALongInformationAnswerIsCut) {
  std::vector<uint8_t> answer(100, 'x');
  answer[32] = 1;
  answer[33] = 9;
  const _get_dev_info_reply reply = devInfoReply(answer);
  EXPECT_EQ(std::string(reply.id_text, 12), std::string(12, 'x'));
  EXPECT_EQ(reply.flag, 1);
}

}  // namespace
}  // namespace mirn
