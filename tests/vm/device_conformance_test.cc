// What a Mirn is to a program that talks to it through the HID table. The same suite runs on the virtual device of the
// process and on the virtual device behind the kernel's drivers: they must not differ.
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "device/hard_key_mouse.h"
#include "platform/hid_functions.h"
#include "platform/mirn_identity.h"
#include "tests/vm/conformance_backend.h"
#include "virtual/fault_plan.h"
#include "virtual/wire.h"

namespace mirn {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

// A handle that is closed with its owner.
class Handle {
 public:
  explicit Handle(const wchar_t* serial = nullptr) : device_(hidFunctions().open(g_vid, g_pid, serial)) {}
  ~Handle() {
    if (device_ != nullptr) hidFunctions().close(device_);
  }
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;

  bool open() const { return device_ != nullptr; }
  hid_device* get() { return device_; }

  int write(const std::vector<uint8_t>& report) {
    std::vector<uint8_t> bytes(1, 0);  // report number
    bytes.insert(bytes.end(), report.begin(), report.end());
    return hidFunctions().write(device_, bytes.data(), bytes.size());
  }
  int read(int timeout_ms) { return hidFunctions().read_timeout(device_, buffer_, sizeof(buffer_), timeout_ms); }
  const uint8_t* bytes() const { return buffer_; }

 private:
  hid_device* device_;
  uint8_t buffer_[65] = {};
};

std::vector<uint8_t> request(uint8_t command, std::vector<uint8_t> payload = {}) {
  return buildWireFrame(command, 256, payload);
}
const std::vector<uint8_t> kAskHandshake = request(1);
const std::vector<uint8_t> kKeysUp = request(3, std::vector<uint8_t>(7, 0));

FaultPlan plan(const char* text) {
  FaultPlan result;
  std::string error;
  EXPECT_TRUE(FaultPlan::parse(text, &result, &error)) << error;
  return result;
}

class DeviceConformance : public testing::Test {
 protected:
  VirtualMirn& mirn() { return backend_->mirn(); }
  // A command layer that has greeted the device; released by its reference.
  CRefObj<hard_key_mouse> layer() {
    auto* device = new hard_key_mouse(g_vid, g_pid);
    device->AddRef();
    CRefObj<hard_key_mouse> reference(device);
    device->Release();
    return reference;
  }

  void expectToArriveWhole(const std::vector<size_t>& sizes);

  std::unique_ptr<ConformanceBackend> backend_ = makeConformanceBackend();
};

TEST_F(DeviceConformance, OpensByIdentifiersAndSerial) {
  EXPECT_TRUE(Handle().open());
  EXPECT_TRUE(Handle(L"conformance-0").open());
  EXPECT_FALSE(Handle(L"nobody").open());
  EXPECT_EQ(hidFunctions().open(g_vid, g_pid + 1, nullptr), nullptr);
  EXPECT_EQ(hidFunctions().open(g_vid + 1, g_pid, nullptr), nullptr);
}

TEST_F(DeviceConformance, TellsWhereItIsPluggedIn) {
  Handle first;
  Handle second;
  ASSERT_TRUE(first.open() && second.open());
  const std::string path = hidFunctions().topology(first.get());
  EXPECT_NE(path, "");
  EXPECT_EQ(hidFunctions().topology(second.get()), path);
}

TEST_F(DeviceConformance, AnswersWithReportsOf64Bytes) {
  Handle handle;
  ASSERT_TRUE(handle.open());
  EXPECT_EQ(handle.write(kAskHandshake), static_cast<int>(kAskHandshake.size() + 1));
  EXPECT_EQ(handle.read(2000), 64);
  EXPECT_EQ(handle.bytes()[0], 0xaa);
}

TEST_F(DeviceConformance, SilenceIsATimeOut) {
  Handle handle;
  ASSERT_TRUE(handle.open());
  EXPECT_EQ(handle.read(0), 0);
  const auto begin = steady_clock::now();
  EXPECT_EQ(handle.read(150), 0);
  EXPECT_GE(steady_clock::now() - begin, milliseconds(140));
}

TEST_F(DeviceConformance, EveryCommandArrivesAsItsRecord) {
  const auto device = layer();
  ASSERT_TRUE(device->device_opened());
  EXPECT_EQ(device->version_text(), mirn().version());
  EXPECT_EQ(device->detail_text(), mirn().detail());
  mirn().clearReceived();

  mouse_args_type mouse;
  mouse.x = 1000;
  mouse.y = 32767;
  mouse.right = 1;
  mouse.wheel = -1;
  EXPECT_EQ(device->send_abs_mouse(mouse), 0);
  keyboard_args_type keys;
  keys.keys[0] = 0x04;
  keys.modifiers = 0x02;
  EXPECT_EQ(device->send_keyboard(keys), 0);
  mouse_args_type move;
  move.x = 300;
  move.y = -20;
  EXPECT_EQ(device->send_rla_mouse(move), 0);
  EXPECT_EQ(device->set_vx_led_status({3, 0xccaa}), 0);
  vx_led_status_def led;
  EXPECT_EQ(device->get_vx_led_status(&led), 0);
  EXPECT_EQ(led.status, 3U);
  EXPECT_EQ(led.param, 0xccaa);
  EXPECT_EQ(device->set_led_status(5), 0);
  EXPECT_EQ(device->get_led_status(), 5);
  EXPECT_EQ(device->send_set_dev_info("a name of 20 bytes.."), 0);
  _get_dev_info_reply info;
  std::string version;
  EXPECT_EQ(device->get_dev_info(&info, &version), 0);
  EXPECT_EQ(std::string(info.info_text, sizeof(info.info_text)), "a name of 20 bytes..");
  mouse.type = kMouseLeftDown;
  EXPECT_EQ(device->send_new_mouse_logic_abs_mouse(mouse), 0);

  const std::vector<VirtualRecord> expected = {
      VirtualMouse{false, 1000, 32767, 0, 1, 0, -1},
      VirtualKeyboard{0x02, {0x04, 0, 0, 0, 0, 0}},
      VirtualMouse{true, 127, 0, 0, 0, 0, 0},
      VirtualMouse{true, 127, 0, 0, 0, 0, 0},
      VirtualMouse{true, 46, -20, 0, 0, 0, 0},
      VirtualSetLed{3, 0xccaa},
      VirtualGetLed{false},
      VirtualSetLed{5, std::nullopt},
      VirtualGetLed{true},
      VirtualSetName{
          {'a', ' ', 'n', 'a', 'm', 'e', ' ', 'o', 'f', ' ', '2', '0', ' ', 'b', 'y', 't', 'e', 's', '.', '.'}},
      VirtualGetInfo{},
      VirtualRawMouse{1, -1, 1000, 32767},
  };
  const std::vector<VirtualReceived> received = mirn().received();
  ASSERT_EQ(received.size(), expected.size());
  for (size_t i = 0; i < expected.size(); ++i) EXPECT_TRUE(received[i].record == expected[i]) << "record " << i;
  EXPECT_EQ(mirn().counters().bad_frames, 0U);
  EXPECT_EQ(mirn().counters().stray_bytes, 0U);
}

// What the command layer's buffer holds: its largest request with every byte escaped.
constexpr size_t kLargestFrame = maxFrameBytes(kMaxRequestPayloadBytes);

constexpr size_t kSmallestFrame = 10;

// Every length at both ends of the range and around each multiple of the 64 bytes that travel at once.
std::vector<size_t> criticalFrameLengths() {
  constexpr size_t kPiece = 64;
  std::vector<size_t> lengths;
  for (size_t size = kSmallestFrame; size <= kLargestFrame; ++size) {
    const size_t rest = size % kPiece;
    if (size <= kPiece + 2 || size >= 32 * kPiece || rest <= 1 || rest == kPiece - 1) lengths.push_back(size);
  }
  return lengths;
}

// A sound frame of exactly `size` bytes. A length or checksum byte of AA or CC travels as two: then the payload is
// shorter, and where that misses the size, another start of it changes the checksum or is an AA itself.
std::vector<uint8_t> frameOf(size_t size, std::vector<uint8_t>* payload) {
  constexpr size_t kAround = 9;  // a frame's bytes around its payload
  constexpr size_t kMostEscapes = 4;
  for (size_t escapes = 0; escapes <= kMostEscapes && kAround + escapes < size; ++escapes) {
    for (size_t start = 0; start < 0x100; ++start) {
      payload->assign(size - kAround - escapes, 0);
      for (size_t i = 0; i < payload->size(); ++i) (*payload)[i] = static_cast<uint8_t>((i + start + size) % 0x80);
      if (start >= 0x80) payload->front() = 0xAA;
      std::vector<uint8_t> frame = request(0x60, *payload);
      if (frame.size() == size) return frame;
    }
  }
  return {};
}

void DeviceConformance::expectToArriveWhole(const std::vector<size_t>& sizes) {
  static_assert(kLargestFrame == 2072);
  Handle handle;
  ASSERT_TRUE(handle.open());
  mirn().clearReceived();
  for (const size_t size : sizes) {
    std::vector<uint8_t> payload;
    const std::vector<uint8_t> frame = frameOf(size, &payload);
    ASSERT_EQ(frame.size(), size);
    ASSERT_EQ(handle.write(frame), static_cast<int>(frame.size() + 1)) << size;
    const std::vector<VirtualReceived> received = mirn().received();
    ASSERT_EQ(received.size(), 1U) << size;
    ASSERT_EQ(received[0].wire, frame) << size;
    ASSERT_EQ(received[0].payload, payload) << size;
    mirn().clearReceived();
  }
  EXPECT_EQ(mirn().counters().bad_frames, 0U);
}

TEST_F(DeviceConformance, FramesOfTheLengthsAtWhichTheBusCutsArriveWhole) {
  expectToArriveWhole(criticalFrameLengths());
}

#ifdef MIRN_CONFORMANCE_EVERY_LENGTH  // thousands of transfers: in process alone
TEST_F(DeviceConformance, FramesOfEveryLengthThatTheCommandLayerSendsArriveWhole) {
  std::vector<size_t> lengths;
  for (size_t size = kSmallestFrame; size <= kLargestFrame; ++size) lengths.push_back(size);
  expectToArriveWhole(lengths);
}
#endif

TEST_F(DeviceConformance, FirmwareOf256KiBArrivesByteForByte) {
  const auto device = layer();
  constexpr uint16_t kChunks = 256;
  std::vector<uint8_t> image;
  for (size_t i = 0; i < kChunks * kFirmwareChunkBytes; ++i) image.push_back(static_cast<uint8_t>((i * 31) ^ (i >> 8)));
  ASSERT_EQ(device->new_firmware_handshake({}), 0);
  for (uint16_t id = 0; id < kChunks; ++id) {
    upgrade_args_ex_type chunk;
    chunk.id = id;
    chunk.total = kChunks;
    chunk.data_len = kFirmwareChunkBytes;
    std::copy_n(image.begin() + id * static_cast<std::ptrdiff_t>(kFirmwareChunkBytes), kFirmwareChunkBytes, chunk.data);
    ASSERT_EQ(device->upgrade_firmware(chunk), 0) << id;
  }
  const VirtualFirmwareState firmware = mirn().firmware();
  EXPECT_EQ(firmware.completed, 1U);
  EXPECT_EQ(firmware.rejected_chunks, 0U);
  EXPECT_EQ(firmware.image, image);
}

TEST_F(DeviceConformance, EveryHandleGetsEveryReport) {
  Handle first;
  Handle second;
  ASSERT_TRUE(first.open() && second.open());
  first.write(kAskHandshake);
  EXPECT_EQ(first.read(2000), 64);
  EXPECT_EQ(second.read(2000), 64);
  EXPECT_EQ(std::vector<uint8_t>(first.bytes(), first.bytes() + 64),
            std::vector<uint8_t>(second.bytes(), second.bytes() + 64));
}

TEST_F(DeviceConformance, AReopenedHandleStartsEmpty) {
  {
    Handle handle;
    ASSERT_TRUE(handle.open());
    handle.write(kAskHandshake);
    Handle witness;
    handle.write(kAskHandshake);
    ASSERT_EQ(witness.read(2000), 64);
    ASSERT_EQ(handle.read(2000), 64);
  }
  Handle handle;
  ASSERT_TRUE(handle.open());
  EXPECT_EQ(handle.read(50), 0);
}

TEST_F(DeviceConformance, KeepsTheOldest63UnreadReports) {
  Handle reader;
  Handle writer;
  ASSERT_TRUE(reader.open() && writer.open());
  for (uint8_t i = 0; i < 70; ++i) {
    // Each answer tells the status it was set to.
    ASSERT_GT(writer.write(request(5, {i, 0, 0})), 0);
    ASSERT_EQ(writer.read(2000), 64) << "the report has reached every handle";
    ASSERT_GT(writer.write(request(6)), 0);
    ASSERT_EQ(writer.read(2000), 64);
  }
  int kept = 0;
  while (reader.read(0) == 64) ++kept;
  EXPECT_EQ(kept, 63);
  writer.write(kAskHandshake);
  EXPECT_EQ(reader.read(2000), 64) << "there is room again";
}

TEST_F(DeviceConformance, UnpluggingEndsAWaitingRead) {
  Handle handle;
  ASSERT_TRUE(handle.open());
  std::thread hand([&] {
    std::this_thread::sleep_for(milliseconds(100));  // the time of a hand at the plug, while the read waits
    backend_->unplug();
  });
  const auto begin = steady_clock::now();
  EXPECT_EQ(handle.read(10000), -1);
  EXPECT_LT(steady_clock::now() - begin, milliseconds(8000));
  hand.join();
}

TEST_F(DeviceConformance, AHandleOfAnEarlierPluggingIsDead) {
  Handle handle;
  ASSERT_TRUE(handle.open());
  backend_->unplug();
  EXPECT_EQ(handle.write(kKeysUp), -1);
  EXPECT_EQ(handle.read(100), -1);
  EXPECT_FALSE(Handle().open());
  backend_->plug();
  EXPECT_EQ(handle.write(kKeysUp), -1);
  EXPECT_EQ(handle.read(100), -1);
  Handle fresh;
  ASSERT_TRUE(fresh.open());
  EXPECT_GT(fresh.write(kAskHandshake), 0);
  EXPECT_EQ(fresh.read(2000), 64);
}

TEST_F(DeviceConformance, WithoutADeviceTheCommandLayerFailsAtOnce) {
  backend_->unplug();
  const auto begin = steady_clock::now();
  const auto device = layer();
  EXPECT_FALSE(device->device_opened());
  EXPECT_EQ(device->send_keyboard({}), -1);
  EXPECT_EQ(device->version_text(), "");
  EXPECT_LT(steady_clock::now() - begin, milliseconds(1500));
}

TEST_F(DeviceConformance, TwoDevicesAreTwo) {
  backend_.reset();
  backend_ = makeConformanceBackend(2);
  Handle first(L"conformance-0");
  Handle second(L"conformance-1");
  ASSERT_TRUE(first.open() && second.open());
  EXPECT_NE(hidFunctions().topology(first.get()), hidFunctions().topology(second.get()));
  backend_->mirn(0).clearReceived();
  backend_->mirn(1).clearReceived();
  first.write(kAskHandshake);
  EXPECT_EQ(first.read(2000), 64);
  EXPECT_EQ(second.read(50), 0);
  EXPECT_EQ(backend_->mirn(0).received().size(), 1U);
  EXPECT_EQ(backend_->mirn(1).received().size(), 0U);
  backend_->unplug(0);
  second.write(kAskHandshake);
  EXPECT_EQ(second.read(2000), 64) << "the other one goes on";
  EXPECT_EQ(first.write(kAskHandshake), -1);
}

// ---- faults ----

struct FaultCase {
  const char* name;
  const char* plan;
  std::vector<int> results;  // of send_keyboard (200 ms), one exchange after another
};

class DeviceConformanceFaults : public DeviceConformance, public testing::WithParamInterface<FaultCase> {};

TEST_P(DeviceConformanceFaults, ShowInTheResultsOfTheExchanges) {
  const auto device = layer();
  mirn().setFaultPlan(plan(GetParam().plan));
  std::vector<int> results;
  for (size_t i = 0; i < GetParam().results.size(); ++i) results.push_back(device->send_keyboard({}));
  EXPECT_EQ(results, GetParam().results);
}

INSTANTIATE_TEST_SUITE_P(
    Plans, DeviceConformanceFaults,
    testing::Values(FaultCase{"None", "", {0, 0, 0}},                                 //
                    FaultCase{"Drop", "drop@2", {0, -1, 0}},                          //
                    FaultCase{"Lose", "lose@2", {0, -1, 0}},                          //
                    FaultCase{"Corrupt", "corrupt@1", {-1, 0}},                       //
                    FaultCase{"Truncate", "truncate=4@1", {-1, 0}},                   //
                    FaultCase{"Garbage", "garbage=9@1", {0, 0}},                      //
                    FaultCase{"Refuse", "refuse=7@2", {0, -1, 0}},                    //
                    FaultCase{"Duplicate", "duplicate@1,refuse=7@2", {0, 0, -1, 0}},  // each takes the one before
                    FaultCase{"Late", "delay=350@1,refuse=7@2", {-1, 0, -1, 0}},      // likewise
                    FaultCase{"Split", "split=6@1,refuse=7@2", {-1, 0, -1, 0}},       // likewise
                    FaultCase{"Stall", "stall=350@1,refuse=7@2", {-1, 0, -1, 0}},     // likewise
                    FaultCase{"WriteError", "write-error@2", {0, -1, 0}},             //
                    FaultCase{"Unplug", "unplug@2", {0, -1, -1, -1}},                 //
                    FaultCase{"UnplugAfter", "unplug-after@2", {0, -1, -1}}),         //
    [](const auto& fault) { return fault.param.name; });

}  // namespace
}  // namespace mirn
