// How the device receives firmware.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "tests/unit/virtual/mirn_driver.h"
#include "virtual/virtual_mirn.h"

namespace mirn {
namespace {

using ::testing::ElementsAre;
using ::testing::Optional;
using Bytes = MirnDriver::Bytes;

class VirtualMirnFirmware : public ::testing::Test {
 protected:
  void restart(VirtualMirnSettings settings) {
    mirn_ = std::make_unique<VirtualMirn>(std::move(settings));
    host_ = std::make_unique<MirnDriver>(*mirn_);
  }
  static Bytes chunk(uint16_t id, uint16_t total, const Bytes& data = {}) { return MirnDriver::chunk(id, total, data); }

  std::unique_ptr<VirtualMirn> mirn_ = std::make_unique<VirtualMirn>();
  std::unique_ptr<MirnDriver> host_ = std::make_unique<MirnDriver>(*mirn_);
};

TEST_F(VirtualMirnFirmware, FirmwareArrivesInOrderAndIsKept) {
  EXPECT_THAT(host_->ask(7, {0xAA, 0xAA, 0xAA}), Optional(ElementsAre(0)));
  EXPECT_THAT(host_->ask(7, chunk(0, 2, {1, 2, 3})), Optional(ElementsAre(0)));
  EXPECT_TRUE(mirn_->firmware().receiving);
  EXPECT_EQ(mirn_->firmware().expected, 1U);
  EXPECT_THAT(host_->ask(7, chunk(1, 2, {4})), Optional(ElementsAre(0)));
  const VirtualFirmwareState firmware = mirn_->firmware();
  EXPECT_EQ(firmware.completed, 1U);
  ASSERT_EQ(firmware.image.size(), 2048U);
  EXPECT_EQ(firmware.image[2], 3);
  EXPECT_EQ(firmware.image[1024], 4);
  EXPECT_FALSE(firmware.receiving);
  EXPECT_EQ(mirn_->version(), "1.0.1");
}

TEST_F(VirtualMirnFirmware, MissingRepeatedAndStrangeChunksAreRefused) {
  EXPECT_THAT(host_->ask(7, chunk(1, 3)), Optional(ElementsAre(1))) << "without chunk 0";
  EXPECT_THAT(host_->ask(7, chunk(0, 0)), Optional(ElementsAre(1))) << "of none";
  EXPECT_THAT(host_->ask(7, chunk(0, 3)), Optional(ElementsAre(0)));
  EXPECT_THAT(host_->ask(7, chunk(2, 3)), Optional(ElementsAre(1))) << "one is missing";
  EXPECT_THAT(host_->ask(7, chunk(1, 4)), Optional(ElementsAre(1))) << "another total";
  EXPECT_THAT(host_->ask(7, chunk(1, 3)), Optional(ElementsAre(0)));
  EXPECT_THAT(host_->ask(7, chunk(1, 3)), Optional(ElementsAre(1))) << "again";
  EXPECT_EQ(mirn_->firmware().rejected_chunks, 5U);
  EXPECT_EQ(mirn_->firmware().completed, 0U);
  EXPECT_THAT(host_->ask(7, chunk(2, 3)), Optional(ElementsAre(0)));
  EXPECT_EQ(mirn_->firmware().completed, 1U);
}

TEST_F(VirtualMirnFirmware, ChunkZeroStartsAnewAndTheRestartIsCounted) {
  host_->ask(7, chunk(0, 2, {1}));
  host_->ask(7, chunk(0, 2, {2}));
  host_->ask(7, chunk(1, 2, {3}));
  EXPECT_EQ(mirn_->firmware().restarts, 1U);
  EXPECT_EQ(mirn_->firmware().image.at(0), 2);
}

TEST_F(VirtualMirnFirmware, ADeviceMayInsistOnTheGreeting) {
  restart({.greeting_required = true});
  EXPECT_THAT(host_->ask(7, chunk(0, 1)), Optional(ElementsAre(1)));
  host_->ask(7, {0xAA, 0xAA, 0xAA});
  EXPECT_THAT(host_->ask(7, chunk(0, 1)), Optional(ElementsAre(0)));
  EXPECT_THAT(host_->ask(7, chunk(0, 1)), Optional(ElementsAre(1))) << "one greeting, one image";
}

TEST_F(VirtualMirnFirmware, TheGreetingForgetsAnUnfinishedImage) {
  host_->ask(7, chunk(0, 2));
  host_->ask(7, {0xAA, 0xAA, 0xAA});
  EXPECT_THAT(host_->ask(7, chunk(1, 2)), Optional(ElementsAre(1)));
}

TEST_F(VirtualMirnFirmware, AnImageCanNameItsVersion) {
  const std::string text = "....MIRN-VERSION=2.7.18\nrest";
  host_->ask(7, chunk(0, 1, {text.begin(), text.end()}));
  EXPECT_EQ(mirn_->version(), "2.7.18");
}

TEST_F(VirtualMirnFirmware, AVersionWithoutANumberAtItsEndGetsOne) {
  mirn_->setVersion("beta", "");
  host_->ask(7, chunk(0, 1));
  EXPECT_EQ(mirn_->version(), "beta1");
  mirn_->setVersion("7", "");
  host_->ask(7, chunk(0, 1));
  EXPECT_EQ(mirn_->version(), "8");
}

TEST_F(VirtualMirnFirmware, AVersionThatCountsUpStaysWithinNineBytes) {
  mirn_->setVersion("1.0.99999", "");
  host_->ask(7, chunk(0, 1));
  EXPECT_EQ(mirn_->version(), "1.0.10000");
  mirn_->setVersion("123456beta", "");
  host_->ask(7, chunk(0, 1));
  EXPECT_EQ(mirn_->version(), "123456bet");
}

TEST_F(VirtualMirnFirmware, TheNewVersionCanWaitForTheNextPlugging) {
  restart({.version_after_replug = true});
  host_->ask(7, chunk(0, 1));
  EXPECT_EQ(mirn_->version(), "1.0.0");
  mirn_->unplug();
  EXPECT_EQ(mirn_->version(), "1.0.0");
  mirn_->plug();
  EXPECT_EQ(mirn_->version(), "1.0.1");
}

TEST_F(VirtualMirnFirmware, UnpluggingForgetsAnUnfinishedImage) {
  host_->ask(7, chunk(0, 2));
  mirn_->unplug();
  mirn_->plug();
  EXPECT_THAT(host_->ask(7, chunk(1, 2)), Optional(ElementsAre(1)));
  EXPECT_TRUE(mirn_->firmware().unfinished.empty());
}

}  // namespace
}  // namespace mirn
