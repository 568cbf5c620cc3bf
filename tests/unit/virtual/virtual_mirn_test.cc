#include "virtual/virtual_mirn.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <random>
#include <thread>

#include "tests/unit/virtual/mirn_driver.h"

namespace mirn {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Optional;
using Bytes = MirnDriver::Bytes;
using Kind = VirtualMirnEvent::Kind;
using namespace std::chrono_literals;

class VirtualMirnTest : public ::testing::Test {
 protected:
  void restart(VirtualMirnSettings settings) {
    mirn_ = std::make_unique<VirtualMirn>(std::move(settings));
    host_ = std::make_unique<MirnDriver>(*mirn_);
  }

  std::unique_ptr<VirtualMirn> mirn_ = std::make_unique<VirtualMirn>();
  std::unique_ptr<MirnDriver> host_ = std::make_unique<MirnDriver>(*mirn_);
};

// ---- commands ----

TEST_F(VirtualMirnTest, TheHandshakeBringsVersionAtZeroAndDetailAtTen) {
  const std::optional<Bytes> answer = host_->ask(1);
  ASSERT_TRUE(answer);
  EXPECT_EQ(std::string(answer->begin(), answer->end()), std::string("1.0.0\0\0\0\0\0virtual-mirn\0", 23));
}

TEST_F(VirtualMirnTest, AnswersCarryCommandAndIndexOfTheRequest) {
  host_->write(buildWireFrame(6, 0x1234, {}));
  const auto answers = host_->takeAnswers();
  ASSERT_EQ(answers.size(), 1U);
  EXPECT_EQ(answers[0].command, 6);
  EXPECT_EQ(answers[0].packet_index, 0x1234);
}

TEST_F(VirtualMirnTest, LongTextsAreCutSoThatTheAnswerFitsOneReport) {
  restart({.name = std::string(50, 'n'),
           .id_text = std::string(50, 'i'),
           .version = "1234567890123",
           .detail = std::string(100, 'd')});
  EXPECT_EQ(mirn_->version(), "123456789");
  EXPECT_EQ(mirn_->detail(), std::string(40, 'd'));
  EXPECT_EQ(mirn_->name(), std::string(20, 'n'));
  EXPECT_EQ(mirn_->idText(), std::string(12, 'i'));
  host_->ask(1);
  host_->ask(9);
  EXPECT_EQ(host_->reports.size(), 2U);
}

TEST_F(VirtualMirnTest, AnAbsoluteMouseRecord) {
  EXPECT_THAT(host_->ask(2, {0xFF, 0x7F, 0x01, 0x00, 1, 0, 1, 0xFF}), Optional(ElementsAre(0)));
  EXPECT_EQ(mirn_->input().x, 32767);
  EXPECT_EQ(mirn_->input().y, 1);
  EXPECT_EQ(mirn_->input().buttons, 5);
  EXPECT_EQ(mirn_->input().wheel, -1);
}

TEST_F(VirtualMirnTest, PositionsOutsideOfTheScaleAreClamped) {
  host_->ask(2, {0xFF, 0xFF, 0x00, 0x80, 0, 0, 0, 0});
  EXPECT_EQ(mirn_->input().x, 0);
  EXPECT_EQ(mirn_->input().y, 0);
}

TEST_F(VirtualMirnTest, ARelativeMouseRecordMovesInPixels) {
  host_->ask(2, {0, 0, 0, 0, 0, 0, 0, 0});
  host_->ask(4, {96, 0, 27, 0, 0, 1, 0, 1});  // 5 % of 1920, 2.5 % of 1080
  EXPECT_EQ(mirn_->input().x, 1638);
  EXPECT_EQ(mirn_->input().y, 819);
  EXPECT_EQ(mirn_->input().buttons, 2);
  host_->ask(4, {0x81, 0xFF, 0x81, 0xFF, 0, 0, 0, 0});
  EXPECT_EQ(mirn_->input().x, 0) << "stops at the edge";
}

TEST_F(VirtualMirnTest, AKeyboardRecord) {
  EXPECT_THAT(host_->ask(3, {2, 4, 5, 6, 7, 8, 9}), Optional(ElementsAre(0)));
  EXPECT_EQ(mirn_->input().modifiers, 2);
  EXPECT_THAT(mirn_->input().keys, ElementsAre(4, 5, 6, 7, 8, 9));
}

TEST_F(VirtualMirnTest, BothFormsOfTheLedCommands) {
  EXPECT_THAT(host_->ask(5, {7}), Optional(ElementsAre(0)));
  EXPECT_THAT(host_->ask(6, {0}), Optional(ElementsAre(7)));
  EXPECT_THAT(host_->ask(5, {8, 0x34, 0x12}), Optional(ElementsAre(0)));
  EXPECT_THAT(host_->ask(6), Optional(ElementsAre(8, 0x34, 0x12)));
  EXPECT_THAT(host_->ask(5, {9}), Optional(ElementsAre(0)));
  EXPECT_EQ(mirn_->led(), (VirtualLed{9, 0x1234})) << "the short form keeps the parameter";
}

TEST_F(VirtualMirnTest, TheInformationAnswerHas33Bytes) {
  const std::optional<Bytes> answer = host_->ask(9);
  ASSERT_TRUE(answer);
  ASSERT_EQ(answer->size(), 33U);
  EXPECT_EQ(std::string(answer->begin(), answer->begin() + 20), std::string("Nuvra Mirn").append(10, '\0'));
  EXPECT_EQ(std::string(answer->begin() + 20, answer->begin() + 32), "VM0000000001");
  EXPECT_EQ(answer->back(), 1);
}

TEST_F(VirtualMirnTest, TheNameIsSetAndShows) {
  Bytes name(20, 0);
  name[0] = 'X';
  EXPECT_THAT(host_->ask(10, name), Optional(ElementsAre(0)));
  EXPECT_EQ(mirn_->name(), "X");
  EXPECT_EQ(host_->ask(9)->at(0), 'X');
}

TEST_F(VirtualMirnTest, ARawReportIsSevenBytesWithoutFrameAndAnswer) {
  EXPECT_EQ(host_->write({0x01, 2, 0xFF, 0xAA, 0x00, 0xCC, 0x00}), VirtualWriteResult::kAccepted);
  EXPECT_THAT(host_->takeAnswers(), IsEmpty());
  EXPECT_EQ(mirn_->input().x, 0xAA);
  EXPECT_EQ(mirn_->input().y, 0xCC);
  EXPECT_EQ(mirn_->input().buttons, 2);
  EXPECT_EQ(mirn_->input().wheel, -1);
  EXPECT_EQ(mirn_->counters().raw_reports, 1U);
}

TEST_F(VirtualMirnTest, SevenBytesInsideOfAFrameAreNoRawReport) {
  Bytes wire = MirnDriver::frame(3, {1, 2, 0xFF, 4, 5, 6, 7});
  ASSERT_EQ(wire.size(), 16U);
  host_->write({wire.begin(), wire.begin() + 8});
  EXPECT_EQ(host_->write({wire.begin() + 8, wire.begin() + 15}), VirtualWriteResult::kAccepted);
  EXPECT_EQ(mirn_->counters().raw_reports, 0U);
  host_->write({0xBB});
  EXPECT_EQ(mirn_->counters().frames, 1U);
  EXPECT_EQ(mirn_->counters().writes, 1U) << "pieces of one frame are one exchange";
}

TEST_F(VirtualMirnTest, AWriteArrivesInPiecesOf64BytesOfWhichTheLastMayBeARawReport) {
  Bytes write(64, 0);
  const Bytes raw = {0x01, 2, 0, 0xAA, 0x00, 0xCC, 0x00};
  write.insert(write.end(), raw.begin(), raw.end());
  EXPECT_EQ(host_->write(write), VirtualWriteResult::kAccepted);
  EXPECT_EQ(mirn_->counters().raw_reports, 1U);
  EXPECT_EQ(mirn_->counters().stray_bytes, 64U);
  EXPECT_EQ(mirn_->counters().writes, 1U);
  EXPECT_EQ(mirn_->input().x, 0xAA);
  EXPECT_EQ(mirn_->input().buttons, 2);
}

TEST_F(VirtualMirnTest, SevenBytesBehindAFullPieceOfAFrameBelongToTheFrame) {
  Bytes payload(62, 1);  // 71 bytes on the wire, the last piece of which begins with 1, too
  const Bytes wire = MirnDriver::frame(15, payload);
  ASSERT_EQ(wire.size(), 71U);
  ASSERT_EQ(wire[64], 0x01);
  EXPECT_EQ(host_->write(wire), VirtualWriteResult::kAccepted);
  EXPECT_EQ(mirn_->counters().raw_reports, 0U);
  EXPECT_EQ(mirn_->counters().frames, 1U);
}

TEST_F(VirtualMirnTest, WhatItDoesNotUnderstandIsAnsweredWithOne) {
  const std::pair<uint8_t, size_t> requests[] = {{0, 0}, {1, 1},   {2, 7},   {2, 9},  {3, 6},    {4, 0},    {5, 0},
                                                 {5, 2}, {6, 2},   {7, 0},   {7, 3},  {7, 1027}, {7, 1029}, {8, 0},
                                                 {9, 1}, {10, 19}, {10, 21}, {11, 0}, {12, 7},   {255, 3}};
  for (const auto& [command, size] : requests) {
    EXPECT_THAT(host_->ask(command, Bytes(size, 0x11)), Optional(ElementsAre(1))) << int{command} << ", " << size;
    EXPECT_TRUE(std::holds_alternative<VirtualNotUnderstood>(mirn_->received().back().record));
    EXPECT_TRUE(mirn_->received().back().refused);
  }
  EXPECT_EQ(mirn_->input(), VirtualInputState{});
}

// ---- the record ----

TEST_F(VirtualMirnTest, KeepsEverythingInOrder) {
  host_->ask(1);
  host_->now += 5ms;
  host_->ask(3, {0, 4, 0, 0, 0, 0, 0});
  host_->write({0x01, 0, 0, 1, 0, 2, 0});
  host_->ask(5, {1});
  host_->ask(6, {0});
  host_->ask(6);
  host_->ask(9);
  host_->ask(4, {1, 0, 2, 0, 0, 0, 0, 0});
  std::vector<VirtualRecord> records;
  for (const VirtualReceived& received : mirn_->received()) {
    records.push_back(received.record);
  }
  EXPECT_THAT(
      records,
      ElementsAre(VirtualRecord(VirtualHandshake{}), VirtualRecord(VirtualKeyboard{0, {4, 0, 0, 0, 0, 0}}),
                  VirtualRecord(VirtualRawMouse{0, 0, 1, 2}), VirtualRecord(VirtualSetLed{1, std::nullopt}),
                  VirtualRecord(VirtualGetLed{true}), VirtualRecord(VirtualGetLed{false}),
                  VirtualRecord(VirtualGetInfo{}), VirtualRecord(VirtualMouse{.relative = true, .x = 1, .y = 2})));
  const VirtualReceived key = mirn_->receivedAfter(1).at(0);
  EXPECT_EQ(key.number, 2U);
  EXPECT_EQ(key.at, 1005ms);
  EXPECT_EQ(key.command, 3);
  EXPECT_EQ(key.packet_index, 256);
  EXPECT_EQ(key.wire, MirnDriver::frame(3, {0, 4, 0, 0, 0, 0, 0}));
  EXPECT_EQ(mirn_->receivedCount(), 8U);
  mirn_->clearReceived();
  EXPECT_THAT(mirn_->received(), IsEmpty());
  host_->ask(9);
  EXPECT_EQ(mirn_->received().at(0).number, 9U) << "numbers go on";
}

TEST_F(VirtualMirnTest, KeepsNoMoreThanItsLimit) {
  restart({.history_limit = 3});
  for (int i = 0; i < 10; ++i) {
    host_->ask(9);
  }
  EXPECT_EQ(mirn_->received().size(), 3U);
  EXPECT_EQ(mirn_->received().front().number, 8U);
  EXPECT_EQ(mirn_->receivedAfter(9).size(), 1U);
}

// ---- pieces and noise ----

TEST_F(VirtualMirnTest, AFrameMayComeInPiecesOfAnySize) {
  const Bytes wire = MirnDriver::frame(7, MirnDriver::chunk(0, 1, Bytes(1024, 0xCC)));
  for (const size_t size : {1U, 7U, 63U, 64U, 65U, 1024U}) {
    const uint64_t before = mirn_->counters().frames;
    for (size_t at = 0; at < wire.size(); at += size) {
      const size_t end = std::min(wire.size(), at + size);
      host_->write({wire.begin() + static_cast<std::ptrdiff_t>(at), wire.begin() + static_cast<std::ptrdiff_t>(end)});
    }
    EXPECT_EQ(mirn_->counters().frames, before + 1) << "pieces of " << size;
  }
  EXPECT_EQ(mirn_->counters().bad_frames, 0U);
  EXPECT_EQ(mirn_->counters().stray_bytes, 0U);
}

TEST_F(VirtualMirnTest, TwoFramesInOneWriteGetTwoAnswers) {
  Bytes wire = MirnDriver::frame(1, {});
  const Bytes second = MirnDriver::frame(9, {});
  wire.insert(wire.end(), second.begin(), second.end());
  host_->write(wire);
  EXPECT_EQ(host_->takeAnswers().size(), 2U);
}

TEST_F(VirtualMirnTest, ABrokenFrameIsDroppedSilentlyAndCounted) {
  host_->write(buildWireFrame(3, 256, Bytes(7), 1));
  EXPECT_THAT(host_->takeAnswers(), IsEmpty());
  EXPECT_EQ(mirn_->counters().bad_frames, 1U);
  EXPECT_EQ(mirn_->receivedCount(), 0U);
  EXPECT_TRUE(host_->ask(9));
}

TEST_F(VirtualMirnTest, NoiseIsSurvived) {
  std::mt19937 random(2);
  for (int round = 0; round < 3000; ++round) {
    Bytes noise(random() % 200);
    for (uint8_t& byte : noise) {
      const unsigned dice = random() % 8;
      byte = dice == 0 ? 0xAA : dice == 1 ? 0xCC : static_cast<uint8_t>(random());
    }
    host_->write(noise);
    host_->takeAnswers();
  }
  host_->write({});
  EXPECT_TRUE(host_->ask(9));
}

// ---- time ----

TEST_F(VirtualMirnTest, AnswersAreDueAfterLatencyJitterAndWarmUp) {
  restart({.latency = 10ms, .jitter = 5ms, .warm_up_latency = 100ms, .warm_up_answers = 2});
  bool jittered = false;
  for (int i = 0; i < 50; ++i) {
    host_->now += 1s;
    host_->ask(9);
    const auto wait = host_->reports.back().due - host_->now;
    const auto base = i < 2 ? 110ms : 10ms;
    EXPECT_GE(wait, base);
    EXPECT_LE(wait, base + 5ms);
    jittered = jittered || wait != base;
  }
  EXPECT_TRUE(jittered);
}

TEST_F(VirtualMirnTest, TheWarmUpComesBackWithEachPlugging) {
  restart({.latency = 1ms, .jitter = 0ms, .warm_up_latency = 50ms, .warm_up_answers = 1});
  host_->ask(9);
  host_->now += 1s;
  host_->ask(9);
  EXPECT_EQ(host_->reports.back().due - host_->now, 1ms);
  mirn_->unplug();
  mirn_->plug();
  host_->now += 1s;
  host_->ask(9);
  EXPECT_EQ(host_->reports.back().due - host_->now, 51ms);
}

TEST_F(VirtualMirnTest, AnswersNeverOvertakeEachOther) {
  restart({.latency = 1ms, .jitter = 20ms});
  auto last = 0ns;
  for (int i = 0; i < 200; ++i) {
    host_->now += 1ms;
    host_->ask(9);
    EXPECT_GE(host_->reports.back().due, last);
    last = host_->reports.back().due;
  }
}

TEST_F(VirtualMirnTest, TheSameSeedGivesTheSameRun) {
  const auto run = [&](uint32_t seed) {
    restart({.seed = seed});
    std::vector<std::chrono::nanoseconds> due;
    for (int i = 0; i < 20; ++i) {
      host_->ask(9);
      due.push_back(host_->reports.back().due);
    }
    return due;
  };
  const auto first = run(1);
  EXPECT_EQ(run(1), first);
  EXPECT_NE(run(2), first);
}

TEST_F(VirtualMirnTest, LatencyCanBeChanged) {
  mirn_->setLatency(70ms, 0ms);
  for (int i = 0; i < 4; ++i) {
    host_->now += 1s;
    host_->ask(9);
  }
  EXPECT_EQ(host_->reports.back().due - host_->now, 70ms);
}

// ---- plugging ----

TEST_F(VirtualMirnTest, UnpluggedItTakesNothing) {
  host_->ask(3, {2, 4, 0, 0, 0, 0, 0});
  host_->ask(2, {1, 0, 1, 0, 1, 0, 0, 0});
  mirn_->unplug();
  EXPECT_FALSE(mirn_->plugged());
  EXPECT_EQ(host_->write(MirnDriver::frame(9, {})), VirtualWriteResult::kGone);
  EXPECT_EQ(mirn_->input().modifiers, 0) << "keys and buttons are released";
  EXPECT_EQ(mirn_->input().buttons, 0);
  EXPECT_EQ(mirn_->input().x, 1) << "the pointer stays where it is";
}

TEST_F(VirtualMirnTest, APluggingIsANewGenerationAndForgetsHalfAFrame) {
  const Bytes wire = MirnDriver::frame(9, {});
  host_->write({wire.begin(), wire.begin() + 4});
  host_->write(MirnDriver::frame(1, {}));
  const uint64_t generation = mirn_->generation();
  mirn_->unplug();
  mirn_->unplug();
  mirn_->plug();
  mirn_->plug();
  EXPECT_EQ(mirn_->generation(), generation + 1);
  EXPECT_THAT(host_->takeAnswers(), IsEmpty()) << "an answer underway is lost";
  EXPECT_TRUE(host_->ask(9));
}

// ---- listeners ----

TEST_F(VirtualMirnTest, TellsEveryChangeInOrderWithTheStateAfterIt) {
  std::vector<VirtualMirnEvent> events;
  const uint64_t id = mirn_->addListener([&](const VirtualMirnEvent& event) {
    events.push_back(event);
    if (event.kind != Kind::kUnplugged && event.kind != Kind::kPlugged) {
      EXPECT_EQ(mirn_->input(), event.input) << "a listener may look";
    }
  });
  host_->ask(3, {2, 4, 0, 0, 0, 0, 0});
  host_->ask(2, {5, 0, 6, 0, 1, 0, 0, 1});
  host_->ask(4, {0xFD, 0xFF, 4, 0, 0, 0, 0, 0xFF});
  host_->ask(5, {3});
  host_->ask(10, Bytes(20, 'n'));
  host_->ask(7, MirnDriver::chunk(0, 1));
  host_->ask(9);
  mirn_->unplug();
  mirn_->plug();
  mirn_->setLed({1, 2});
  mirn_->setName("other");
  mirn_->setVersion("3", "x");
  std::vector<Kind> kinds;
  for (const VirtualMirnEvent& event : events) {
    kinds.push_back(event.kind);
  }
  EXPECT_THAT(kinds,
              ElementsAre(Kind::kKeyboard, Kind::kPointer, Kind::kPointer, Kind::kLed, Kind::kName, Kind::kFirmware,
                          Kind::kUnplugged, Kind::kPlugged, Kind::kLed, Kind::kName, Kind::kFirmware));
  EXPECT_EQ(events[0].input.keys[0], 4);
  EXPECT_FALSE(events[1].relative);
  EXPECT_EQ(events[1].wheel, 1);
  EXPECT_EQ(events[1].input.x, 5);
  EXPECT_TRUE(events[2].relative);
  EXPECT_EQ(events[2].dx, -3);
  EXPECT_EQ(events[2].dy, 4);
  EXPECT_EQ(events[2].wheel, -1);
  EXPECT_EQ(events[3].led.status, 3);
  EXPECT_EQ(events[5].version, "1.0.1");
  EXPECT_EQ(events[6].input.keys[0], 0);

  mirn_->removeListener(id);
  mirn_->setLed({9, 9});
  EXPECT_EQ(events.size(), 11U);
}

TEST_F(VirtualMirnTest, ValuesSetByHandShowInTheNextAnswer) {
  mirn_->setName("hand");
  mirn_->setIdText("ID");
  mirn_->setFlag(0);
  mirn_->setVersion("9.9", "det");
  const Bytes info = *host_->ask(9);
  EXPECT_EQ(info[0], 'h');
  EXPECT_EQ(info[20], 'I');
  EXPECT_EQ(info[32], 0);
  EXPECT_EQ(mirn_->flag(), 0);
  EXPECT_EQ(mirn_->idText(), "ID");
  EXPECT_EQ(host_->ask(1)->at(0), '9');
  EXPECT_EQ(mirn_->detail(), "det");
}

TEST_F(VirtualMirnTest, TheSerialIsTheIdTextUnlessGiven) {
  EXPECT_EQ(mirn_->serial(), "VM0000000001");
  restart({.serial = "S"});
  EXPECT_EQ(mirn_->serial(), "S");
  EXPECT_EQ(mirn_->topology(), "virtual-1");
}

TEST_F(VirtualMirnTest, ManyThreadsMayUseIt) {
  std::atomic<int> told{0};
  const uint64_t id = mirn_->addListener([&](const VirtualMirnEvent& /*event*/) { ++told; });
#if defined(MIRN_SANITIZED)
  constexpr int kRounds = 300;
#else
  constexpr int kRounds = 2000;
#endif
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 2; ++thread) {
    threads.emplace_back([&] {
      for (int i = 0; i < kRounds; ++i) {
        mirn_->hostWrite(MirnDriver::frame(5, {static_cast<uint8_t>(i)}), std::chrono::milliseconds(i));
      }
    });
  }
  threads.emplace_back([&] {
    for (int i = 0; i < kRounds; ++i) {
      mirn_->takeReports();
      mirn_->input();
      mirn_->receivedCount();
      mirn_->counters();
      mirn_->removeListener(mirn_->addListener([](const VirtualMirnEvent& /*event*/) {}));
    }
  });
  for (std::thread& thread : threads) {
    thread.join();
  }
  mirn_->removeListener(id);
  EXPECT_EQ(told, 2 * kRounds);
  EXPECT_EQ(mirn_->counters().frames, 2U * kRounds);
}

}  // namespace
}  // namespace mirn
