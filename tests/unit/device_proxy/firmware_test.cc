#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "device/firmware_check.h"
#include "tests/unit/device_proxy/hex_text.h"
#include "tests/unit/device_proxy/proxy_fixture.h"

namespace mirn {
namespace {

using Bytes = std::vector<uint8_t>;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::SizeIs;
using Kind = Outcome::Kind;

class FirmwareTest : public ProxyTest {
 protected:
  FirmwareTest() {
    if (const char* before = std::getenv("TMPDIR")) before_ = before;
    setenv("TMPDIR", (directory_.root() + "/").c_str(), 1);
  }
  ~FirmwareTest() override {
    if (before_) {
      setenv("TMPDIR", before_->c_str(), 1);
    } else {
      unsetenv("TMPDIR");
    }
  }

  std::string write(const std::string& name, const Bytes& image) const {
    return directory_.write(name, std::string(image.begin(), image.end()));
  }
  // The chunks that arrived, put together; checks their numbers.
  Bytes sentImage(uint16_t total) {
    proxy_->drain();
    Bytes image;
    int expected = 0;
    for (const VirtualReceived& received : mirn_->receivedAfter(seen_)) {
      const auto* chunk = std::get_if<VirtualFirmwareChunk>(&received.record);
      if (chunk == nullptr) {
        ADD_FAILURE() << describe(received.record);
        continue;
      }
      EXPECT_EQ(chunk->id, expected++);
      EXPECT_EQ(chunk->total, total);
      image.insert(image.end(), chunk->data.begin(), chunk->data.end());
    }
    seen_ = mirn_->receivedCount();
    return image;
  }

  std::optional<std::string> before_;
  ScratchDirectory directory_;
  LogCapture log_;
};

Bytes padded(Bytes image) {
  image.resize((image.size() + 1023) / 1024 * 1024);
  return image;
}

TEST_F(FirmwareTest, RawImagesOfEverySizeArriveWhole) {
  start();
  for (const size_t size : {0, 1, 1023, 1024, 1025, 2500, 65536}) {
    const Bytes image = testImage(size);
    EXPECT_EQ(proxy_->ReqUpgradeFirmware(write("image.bin", image)), 1) << size;
    EXPECT_EQ(sentImage(static_cast<uint16_t>((size + 1023) / 1024)), padded(image)) << size;
  }
  EXPECT_THAT(log_.text(), HasSubstr("\t= Debug =\t[ReqUpgradeFirmware] Upgrade success id=64\n"));
  EXPECT_THAT(log_.text(), Not(HasSubstr("tmpdir")));
}

TEST_F(FirmwareTest, HexImagesOfEverySizeArriveWhole) {
  start();
  for (const size_t size : {0, 1, 1023, 1024, 1025, 2500, 65536}) {
    const Bytes image = testImage(size);
    const std::string path = directory_.write("image.hex", hexFile(image, 16, size % 2 == 0 ? "\r\n" : "\n"));
    EXPECT_EQ(proxy_->ReqUpgradeFirmware(path), 1) << size;
    EXPECT_EQ(sentImage(static_cast<uint16_t>((size + 1023) / 1024)), padded(image)) << size;
  }
}

TEST_F(FirmwareTest, A2500ByteImageIsThreeChunksAndTheLastOneZeroFilled) {
  start();
  EXPECT_EQ(proxy_->ReqUpgradeFirmware(write("image.bin", Bytes(2500, 0xCC))), 1);
  const Bytes sent = sentImage(3);
  ASSERT_EQ(sent.size(), 3072u);
  EXPECT_EQ(std::count(sent.begin(), sent.begin() + 2500, 0xCC), 2500);
  EXPECT_EQ(std::count(sent.begin() + 2500, sent.end(), 0), 572);
  EXPECT_THAT(listener_.outcomes(),
              ::testing::ElementsAre(Outcome{Kind::kUpgrade, 0, 0, 3}, Outcome{Kind::kUpgrade, 0, 1, 3},
                                     Outcome{Kind::kUpgrade, 0, 2, 3}));
  EXPECT_EQ(mirn_->firmware().completed, 1u);
}

TEST_F(FirmwareTest, EveryByteValueIn1024GoesOutWhole) {
  start();
  for (const int value : {0xAA, 0xBB, 0xCC}) {
    EXPECT_EQ(proxy_->ReqUpgradeFirmware(write("image.bin", Bytes(1024, static_cast<uint8_t>(value)))), 1);
    EXPECT_EQ(sentImage(1), Bytes(1024, static_cast<uint8_t>(value)));
  }
}

TEST_F(FirmwareTest, AWholeUpgradeWithGreetingBringsTheNewVersion) {
  VirtualMirnSettings settings;
  settings.version = "2.0.0";
  settings.greeting_required = true;
  start(settings);
  Bytes image = testImage(5000);
  const std::string mark = "MIRN-VERSION=2.1.7";
  std::copy(mark.begin(), mark.end(), image.begin() + 100);
  image[100 + mark.size()] = 0;
  EXPECT_EQ(proxy_->ReqUpgradeFirmwareHandShake(), 1);
  EXPECT_EQ(proxy_->ReqUpgradeFirmware(directory_.write("new.HEX", hexFile(image, 16, "\r\n"))), 1);
  EXPECT_THAT(arrived(),
              ::testing::ElementsAre("greeting", "chunk 0/5", "chunk 1/5", "chunk 2/5", "chunk 3/5", "chunk 4/5"));
  EXPECT_EQ(mirn_->firmware().completed, 1u);
  EXPECT_EQ(mirn_->firmware().rejected_chunks, 0u);
  EXPECT_EQ(mirn_->firmware().image, padded(image));
  EXPECT_EQ(mirn_->version(), "2.1.7");
  const std::vector<Outcome> outcomes = listener_.outcomes();
  ASSERT_THAT(outcomes, SizeIs(6));
  EXPECT_EQ(outcomes[0], (Outcome{Kind::kHandshake, 0}));
  for (uint16_t id = 0; id < 5; ++id) EXPECT_EQ(outcomes[id + 1u], (Outcome{Kind::kUpgrade, 0, id, 5}));
}

TEST_F(FirmwareTest, TheFirstChunkFlushesTheHeldMove) {
  start();
  proxy_->MouseMove(12, 0, false);
  proxy_->ReqUpgradeFirmware(write("image.bin", Bytes(1, 1)));
  EXPECT_THAT(arrived(), ::testing::ElementsAre("abs 12 0 lrm 000 wheel 0", "chunk 0/1"));
}

TEST_F(FirmwareTest, AFailureOfAChunkIsReportedAndTheOthersFollow) {
  start();
  FaultPlan plan;
  std::string error;
  ASSERT_TRUE(FaultPlan::parse("refuse=5@2/c7;drop@4/c7", &plan, &error)) << error;
  mirn_->setFaultPlan(plan);
  proxy_->ReqUpgradeFirmware(write("image.bin", Bytes(4096, 1)));
  proxy_->drain();
  const std::vector<Outcome> outcomes = listener_.outcomes();
  ASSERT_THAT(outcomes, SizeIs(4));
  EXPECT_EQ(outcomes[0].result, 0);
  EXPECT_EQ(outcomes[1].result, -1);
  EXPECT_EQ(outcomes[2].result, -1) << "sent, but the device misses the one before and takes none out of order";
  EXPECT_EQ(outcomes[3].result, 0) << "a failure of the last one counts as success";
}

// ---- What counts as HEX ----

TEST_F(FirmwareTest, ThePathsEndingDecidesAboutConversion) {
  EXPECT_TRUE(isHexFirmwarePath("a.hex"));
  EXPECT_TRUE(isHexFirmwarePath("a.HEX"));
  EXPECT_TRUE(isHexFirmwarePath(".hex"));
  EXPECT_TRUE(isHexFirmwarePath("/old.hex.d/a.HEX")) << "the other ending in front does not count";
  EXPECT_FALSE(isHexFirmwarePath("a.Hex"));
  EXPECT_FALSE(isHexFirmwarePath("a.hEX"));
  EXPECT_FALSE(isHexFirmwarePath("a.hex.bin"));
  EXPECT_FALSE(isHexFirmwarePath("a.hex "));
  EXPECT_FALSE(isHexFirmwarePath("/dir.hex/a.hex")) << "its first occurrence is not at the end";
  EXPECT_FALSE(isHexFirmwarePath("hex"));
  EXPECT_FALSE(isHexFirmwarePath(""));

  start();
  const std::string text = hexFile(Bytes{1, 2, 3}, 16, "\r\n");
  EXPECT_EQ(proxy_->ReqUpgradeFirmware(directory_.write("a.Hex", text)), 1);
  EXPECT_EQ(sentImage(1), padded(Bytes(text.begin(), text.end()))) << "sent as it is";
}

// ---- Files and directories ----

TEST_F(FirmwareTest, AnEmptyPathIsRefusedWithALine) {
  start();
  EXPECT_EQ(proxy_->ReqUpgradeFirmware(""), 0);
  EXPECT_THAT(log_.text(), HasSubstr("\t* Error *\t[ReqUpgradeFirmware] file Path is empty!\n"));
  EXPECT_THAT(arrived(), IsEmpty());
}

TEST_F(FirmwareTest, FilesThatCannotBeReadSendNothing) {
  start();
  const std::string fifo = directory_.path("fifo");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  for (const std::string& path : {directory_.path("absent.bin"), directory_.root(), fifo, std::string("/dev/zero")}) {
    EXPECT_EQ(proxy_->ReqUpgradeFirmware(path), 0) << path;
    EXPECT_THAT(log_.text(), HasSubstr("\t* Error *\t[ReqUpgradeFirmware] open file failed! path=" + path + "\n"));
  }
  EXPECT_EQ(proxy_->ReqUpgradeFirmware(directory_.path("absent.hex")), 0);
  EXPECT_THAT(log_.text(), HasSubstr("Error Fail To Read, source_path="));
  EXPECT_THAT(log_.text(), HasSubstr("\t* Error *\t[ReqUpgradeFirmware] hex to bin failed!\n"));
  EXPECT_THAT(arrived(), IsEmpty());
  EXPECT_EQ(listener_.count(), 0u);
}

TEST_F(FirmwareTest, AReadErrorEndsTheUpgrade) {
  start();
  EXPECT_EQ(proxy_->ReqUpgradeFirmware("/proc/self/mem"), 0) << "a regular file that can't be read at its beginning";
  EXPECT_THAT(log_.text(), HasSubstr("[ReqUpgradeFirmware] Upgrade success id=0\n")) << "on every way out";
  EXPECT_THAT(arrived(), IsEmpty());
}

TEST_F(FirmwareTest, AFaultyHexFileSendsNothing) {
  start();
  EXPECT_EQ(proxy_->ReqUpgradeFirmware(directory_.write("a.hex", hexFile(testImage(5000), 16, "\n") + "oops\n")), 0);
  EXPECT_THAT(log_.text(), HasSubstr("\t* Error *\t[ReqUpgradeFirmware] hex to bin failed!\n"));
  EXPECT_THAT(arrived(), IsEmpty());
}

TEST_F(FirmwareTest, TheTemporaryImageStandsInTmpdirAndStays) {
  start();
  const std::string source = directory_.write("a.hex", hexFile(Bytes{7, 8, 9}, 16, "\n"));
  EXPECT_EQ(proxy_->ReqUpgradeFirmware(source), 1);
  const std::string image = directory_.path("velkin_temp.bin");
  EXPECT_EQ(readFile(image), "\x07\x08\x09");
  EXPECT_THAT(log_.text(), HasSubstr("\t= Debug =\t[ReqUpgradeFirmware] tmpdir=" + directory_.root() + "/\n"));
  EXPECT_THAT(log_.text(), HasSubstr("\t= Debug =\t[ReqUpgradeFirmware] tmpdir=" + image + "\n"));
  // No separator is added.
  setenv("TMPDIR", directory_.path("beside").c_str(), 1);
  EXPECT_EQ(proxy_->ReqUpgradeFirmware(source), 1);
  EXPECT_EQ(readFile(directory_.path("besidevelkin_temp.bin")), "\x07\x08\x09");
}

TEST_F(FirmwareTest, WithoutATmpdirTheImageWouldStandBesideTheFallbackDirectory) {
  start();
  unsetenv("TMPDIR");
  EXPECT_EQ(proxy_->ReqUpgradeFirmware(directory_.path("absent.hex")), 0);  // so nothing is written there
  EXPECT_THAT(log_.text(), HasSubstr("[ReqUpgradeFirmware] tmpdir=/tmp\n"));
  EXPECT_THAT(log_.text(), HasSubstr("[ReqUpgradeFirmware] tmpdir=/tmpvelkin_temp.bin\n"));
}

TEST_F(FirmwareTest, AnEmptyTmpdirIsSetAndMeansTheCurrentDirectory) {
  start();
  setenv("TMPDIR", "", 1);
  EXPECT_EQ(proxy_->ReqUpgradeFirmware(directory_.path("absent.hex")), 0);  // so nothing is written there
  EXPECT_THAT(log_.text(), HasSubstr("[ReqUpgradeFirmware] tmpdir=\n"));
  EXPECT_THAT(log_.text(), HasSubstr("[ReqUpgradeFirmware] tmpdir=velkin_temp.bin\n"));
}

TEST_F(FirmwareTest, ATmpdirOfMoreThan1023CharactersCutsTheName) {
  start();
  const std::string source = directory_.write("a.hex", hexFile(Bytes{7}, 16, "\n"));
  // 1020 characters, then the name's first three.
  std::string folder = directory_.root();
  while (folder.size() < 1000) {
    folder += "/" + std::string(std::min<size_t>(200, 1018 - folder.size()), 'd');
  }
  folder += std::string(1019 - folder.size(), 'e') + "/";
  ASSERT_EQ(folder.size(), 1020u);
  std::filesystem::create_directories(folder);
  setenv("TMPDIR", folder.c_str(), 1);
  EXPECT_EQ(proxy_->ReqUpgradeFirmware(source), 1);
  EXPECT_TRUE(std::filesystem::exists(folder + "vel"));
  // One character too many.
  const std::string shorter = folder.substr(0, 1008) + "/";
  std::filesystem::create_directories(shorter);
  setenv("TMPDIR", shorter.c_str(), 1);
  EXPECT_EQ(proxy_->ReqUpgradeFirmware(source), 1);
  EXPECT_TRUE(std::filesystem::exists(shorter + "velkin_temp.bi"));
  EXPECT_FALSE(std::filesystem::exists(shorter + "velkin_temp.bin"));
  setenv("TMPDIR", std::string(5000, 'x').c_str(), 1);
  EXPECT_EQ(proxy_->ReqUpgradeFirmware(source), 0);
}

TEST_F(FirmwareTest, ASymbolicLinkInTheTemporaryImagesPlaceStopsTheUpgrade) {
  start();
  const std::string precious = directory_.write("precious", "keep me");
  std::filesystem::create_symlink(precious, directory_.path("velkin_temp.bin"));
  EXPECT_EQ(proxy_->ReqUpgradeFirmware(directory_.write("a.hex", hexFile(Bytes{7}, 16, "\n"))), 0);
  EXPECT_EQ(readFile(precious), "keep me");
  EXPECT_THAT(arrived(), IsEmpty());
  // To read from, a link is as good as its target.
  std::filesystem::create_symlink(write("real.bin", Bytes{3}), directory_.path("link.bin"));
  EXPECT_EQ(proxy_->ReqUpgradeFirmware(directory_.path("link.bin")), 1);
  EXPECT_EQ(sentImage(1), padded(Bytes{3}));
}

// ---- The wire's 16-bit numbers ----

class HugeImageTest : public FirmwareTest {
 protected:
  // A sparse file of that many chunks; the last one holds a single byte.
  std::string sparse(uint64_t chunks) const {
    std::string path = directory_.path("huge.bin");
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    EXPECT_EQ(ftruncate(fd, static_cast<off_t>((chunks - 1) * 1024 + 1)), 0);
    close(fd);
    return path;
  }
  // All chunks fail: the device is gone. That keeps 65,537 exchanges cheap and shows the last-chunk rule.
  std::vector<Outcome> upgradeGoneDevice(uint64_t chunks) {
    start();
    mirn_->unplug();
    EXPECT_EQ(proxy_->ReqUpgradeFirmware(sparse(chunks)), 1);
    proxy_->drain();
    EXPECT_THAT(log_.text(), HasSubstr("Upgrade success id=" + std::to_string(chunks)));
    return listener_.outcomes();
  }
};

TEST_F(HugeImageTest, With65535ChunksTheTotalStillFits) {
  const std::vector<Outcome> outcomes = upgradeGoneDevice(65535);
  ASSERT_THAT(outcomes, SizeIs(65535));
  EXPECT_EQ(outcomes[0], (Outcome{Kind::kUpgrade, -1, 0, 65535}));
  EXPECT_EQ(outcomes[65533], (Outcome{Kind::kUpgrade, -1, 65533, 65535}));
  EXPECT_EQ(outcomes[65534], (Outcome{Kind::kUpgrade, 0, 65534, 65535})) << "the last chunk's failure";
}

TEST_F(HugeImageTest, With65536ChunksTheTotalIsZeroAndEveryFailureCountsAsTheLast) {
  const std::vector<Outcome> outcomes = upgradeGoneDevice(65536);
  ASSERT_THAT(outcomes, SizeIs(65536));
  for (size_t i = 0; i < outcomes.size(); ++i) {
    ASSERT_EQ(outcomes[i], (Outcome{Kind::kUpgrade, 0, static_cast<uint16_t>(i), 0}));
  }
}

TEST_F(HugeImageTest, With65537ChunksTotalAndNumbersWrap) {
  const std::vector<Outcome> outcomes = upgradeGoneDevice(65537);
  ASSERT_THAT(outcomes, SizeIs(65537));
  EXPECT_EQ(outcomes[65535], (Outcome{Kind::kUpgrade, 0, 65535, 1})) << "65535 + 1 does not wrap to 0";
  EXPECT_EQ(outcomes[65536], (Outcome{Kind::kUpgrade, 0, 0, 1}));
}

// Looks at the device after each chunk's exchange: the history of tens of thousands of chunks needs no memory.
class ChunkCounter : public IKeyMouseListener {
 public:
  ChunkCounter(const std::shared_ptr<VirtualMirn>& mirn, uint16_t total) : mirn_(mirn), total_(total) {}

  void OnUpgradeStep(uint16_t, uint16_t) override { ADD_FAILURE(); }
  void OnSendMouseResult(int) override {}  // the releases, when the proxy goes
  void OnSendKeyboardResult(int) override {}
  void OnSendFirmwareHandSharkeResult(int) override { ADD_FAILURE(); }
  void OnSendUpgradeResult(int result, uint16_t id, uint16_t total) override {
    const Outcome expected{Kind::kUpgrade, 0, static_cast<uint16_t>(chunks_), total_};
    const std::vector<VirtualReceived> received = mirn_->receivedAfter(seen_);
    seen_ += received.size();
    ++chunks_;
    const auto* chunk = received.size() == 1 ? std::get_if<VirtualFirmwareChunk>(&received[0].record) : nullptr;
    const bool right = Outcome{Kind::kUpgrade, result, id, total} == expected && chunk != nullptr &&
                       chunk->id == expected.id && chunk->total == expected.total;
    if (!right && wrong_++ == 0) ADD_FAILURE() << "the first that is wrong is chunk " << chunks_ - 1;
  }

  // While the queue is empty.
  uint64_t chunks() const { return chunks_; }

 private:
  const std::shared_ptr<VirtualMirn> mirn_;
  const uint16_t total_;
  uint64_t seen_ = 1;  // the greeting
  uint64_t chunks_ = 0;
  uint64_t wrong_ = 0;
};

struct LiveImage {
  uint64_t chunks;
  uint16_t total;      // as the wire carries it
  uint64_t completed;  // images that the device makes of it
  uint64_t rejected;
};

class LiveHugeImageTest : public HugeImageTest, public testing::WithParamInterface<LiveImage> {};

// Every one reports success: what fails has a number at or beyond the total, which counts as the last chunk.
TEST_P(LiveHugeImageTest, EachChunkReachesTheDeviceOnceWithNumbersOf16Bits) {
  VirtualMirnSettings settings;
  settings.history_limit = 3;
  plugIn(settings);
  ChunkCounter counter(mirn_, GetParam().total);
  proxy_ = std::make_unique<TestProxy>(&counter);
  EXPECT_EQ(proxy_->ReqUpgradeFirmware(sparse(GetParam().chunks)), 1);
  proxy_->drain();
  EXPECT_EQ(counter.chunks(), GetParam().chunks);
  EXPECT_EQ(mirn_->receivedCount(), GetParam().chunks + 1);
  EXPECT_EQ(mirn_->firmware().completed, GetParam().completed);
  EXPECT_EQ(mirn_->firmware().rejected_chunks, GetParam().rejected);
  proxy_.reset();  // before its listener goes
}

INSTANTIATE_TEST_SUITE_P(Chunks, LiveHugeImageTest,
                         testing::Values(LiveImage{65535, 65535, 1, 0},   // the largest that fits
                                         LiveImage{65536, 0, 0, 65536},   // an image of no chunks
                                         LiveImage{65537, 1, 2, 65535}),  // the first chunk and the wrapped last
                         [](const auto& image) { return std::to_string(image.param.chunks); });

TEST_F(HugeImageTest, AFileBeyondAnyFirmwareIsRefusedBeforeItIsRead) {
  start();
  EXPECT_EQ(proxy_->ReqUpgradeFirmware(sparse(1u << 20)), 0);
  EXPECT_THAT(log_.text(), HasSubstr("open file failed!"));
  EXPECT_THAT(arrived(), IsEmpty());
}

}  // namespace
}  // namespace mirn
