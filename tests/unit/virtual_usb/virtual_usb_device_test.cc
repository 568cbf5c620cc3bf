// The device behind the bus, and its server on a socket pair, without a kernel.
#include "virtual/usb/virtual_usb_device.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <array>
#include <filesystem>
#include <fstream>
#include <future>
#include <thread>

#include "tests/unit/virtual_usb/usbip_host.h"
#include "virtual/usb/usb_plug.h"
#include "virtual/usb/usbip_server.h"
#include "virtual/usb/vhci_host.h"
#include "virtual/wire.h"

namespace mirn {
namespace {

using std::chrono::milliseconds;
using Time = VirtualUsbDevice::Time;

const std::vector<uint8_t> kAskHandshake = buildWireFrame(1, 256, {});

VirtualMirnSettings quickSettings() {
  VirtualMirnSettings settings;
  settings.latency = milliseconds(10);
  settings.jitter = Time(0);
  settings.warm_up_latency = Time(0);
  return settings;
}

class VirtualUsbDeviceTest : public testing::Test {
 protected:
  std::vector<HostReply> handle(UsbIpRequest request, Time now = Time(0)) {
    VirtualUsbDevice::Replies replies;
    device_.handle(std::move(request), now, &replies);
    return read(replies);
  }
  std::vector<HostReply> run(Time now) {
    VirtualUsbDevice::Replies replies;
    device_.run(now, &replies);
    return read(replies);
  }
  static std::vector<HostReply> read(const VirtualUsbDevice::Replies& replies) {
    std::vector<HostReply> all;
    for (const UsbIpReply& reply : replies) all.push_back(readReply(reply.bytes()));
    return all;
  }
  static UsbIpSubmit out(uint32_t sequence, std::vector<uint8_t> data) {
    const auto length = static_cast<uint32_t>(data.size());
    return {.sequence = sequence, .in = false, .endpoint = 3, .length = length, .data = std::move(data)};
  }
  static UsbIpSubmit in(uint32_t sequence, uint8_t endpoint, uint32_t length) {
    return {.sequence = sequence, .in = true, .endpoint = endpoint, .length = length};
  }
  void faults(const char* text) {
    FaultPlan plan;
    std::string error;
    ASSERT_TRUE(FaultPlan::parse(text, &plan, &error)) << error;
    mirn_.setFaultPlan(plan);
  }

  VirtualMirn mirn_{quickSettings()};
  TestPattern pattern_;
  VirtualUsbDevice device_{UsbShape(), mirn_, pattern_};
};

TEST_F(VirtualUsbDeviceTest, IdentifiesItself) {
  const UsbIdentity identity = usbIdentityOf(mirn_);
  EXPECT_EQ(identity.product_name, "Nuvra Mirn");
  EXPECT_EQ(identity.vendor, g_vid);
  EXPECT_EQ(identity.product, g_pid);
}

TEST_F(VirtualUsbDeviceTest, AnswersComeWhenTheyAreDueAndInOrderOfTheTransfers) {
  EXPECT_TRUE(handle(in(1, 2, 64)).empty());
  EXPECT_TRUE(handle(in(2, 2, 64)).empty());
  const auto written = handle(out(3, kAskHandshake));
  ASSERT_EQ(written.size(), 1U);
  EXPECT_EQ(written[0].actual, kAskHandshake.size());
  ASSERT_TRUE(device_.nextDue().has_value());
  EXPECT_EQ(*device_.nextDue(), milliseconds(10));
  EXPECT_TRUE(run(milliseconds(9)).empty());
  const auto answer = run(milliseconds(10));
  ASSERT_EQ(answer.size(), 1U);
  EXPECT_EQ(answer[0].sequence, 1U);
  EXPECT_EQ(answer[0].actual, 64U);
  EXPECT_EQ(answer[0].rest[0], 0xaa);
  EXPECT_EQ(device_.pendingTransfers(), 1U);
}

TEST_F(VirtualUsbDeviceTest, AFrameIsTakenHoweverItIsCut) {
  std::vector<uint8_t> payload(500, 0x11);
  const std::vector<uint8_t> frame = buildWireFrame(0x60, 256, payload);
  for (size_t at = 0; at < frame.size(); at += 100) {
    const size_t end = std::min(at + 100, frame.size());
    handle(out(1, {frame.begin() + static_cast<std::ptrdiff_t>(at), frame.begin() + static_cast<std::ptrdiff_t>(end)}));
  }
  ASSERT_EQ(mirn_.received().size(), 1U);
  EXPECT_EQ(mirn_.received()[0].payload, payload);
}

TEST_F(VirtualUsbDeviceTest, UnlinkTakesAWaitingTransferBack) {
  handle(in(1, 2, 64));
  handle(in(2, 1, 16384));
  auto reply = handle(UsbIpUnlink{3, 1});
  ASSERT_EQ(reply.size(), 1U);
  EXPECT_EQ(reply[0].command, 4U);
  EXPECT_EQ(reply[0].status, kUsbUnlinked);
  EXPECT_EQ(handle(UsbIpUnlink{4, 2})[0].status, kUsbUnlinked);
  EXPECT_EQ(handle(UsbIpUnlink{5, 1})[0].status, 0) << "it had ended";
  EXPECT_EQ(device_.pendingTransfers(), 0U);
  handle(out(6, kAskHandshake));
  EXPECT_TRUE(run(milliseconds(50)).empty()) << "nothing is sent for a transfer that was taken back";
}

TEST_F(VirtualUsbDeviceTest, AnUnlinkThatOvertakesItsTransferWaitsForIt) {
  handle(in(10, 1, 16384));
  EXPECT_TRUE(handle(UsbIpUnlink{12, 11}).empty());
  const auto reply = handle(in(11, 1, 16384));
  ASSERT_EQ(reply.size(), 1U);
  EXPECT_EQ(reply[0].command, 4U);
  EXPECT_EQ(reply[0].sequence, 12U);
  EXPECT_EQ(reply[0].status, kUsbUnlinked);
  EXPECT_EQ(device_.pendingTransfers(), 1U) << "the one that was taken back gets no other answer";
}

TEST_F(VirtualUsbDeviceTest, SequenceNumbersMayWrapAround) {
  handle(in(0xffffffff, 2, 64));
  EXPECT_TRUE(handle(UsbIpUnlink{2, 1}).empty());
  EXPECT_EQ(handle(in(1, 2, 64))[0].sequence, 2U);
  EXPECT_EQ(handle(UsbIpUnlink{3, 0xffffffff})[0].status, kUsbUnlinked);
}

TEST_F(VirtualUsbDeviceTest, HeldOutputWaitsAndCanBeTakenBack) {
  device_.setHoldOutput(true);
  EXPECT_TRUE(handle(out(1, kAskHandshake)).empty());
  EXPECT_TRUE(handle(out(2, kAskHandshake)).empty());
  EXPECT_EQ(handle(UsbIpUnlink{3, 1})[0].status, kUsbUnlinked);
  device_.setHoldOutput(false);
  EXPECT_EQ(run(Time(0)).size(), 1U);
  EXPECT_EQ(mirn_.received().size(), 1U);
}

TEST_F(VirtualUsbDeviceTest, AWriteErrorEndsTheTransferWithAnError) {
  faults("write-error@1");
  EXPECT_EQ(handle(out(1, kAskHandshake))[0].status, kUsbProtocolError);
  EXPECT_EQ(handle(out(2, kAskHandshake))[0].status, kUsbOk);
}

TEST_F(VirtualUsbDeviceTest, AnUnpluggedDeviceIsGone) {
  faults("unplug@1");
  EXPECT_FALSE(device_.gone());
  EXPECT_TRUE(handle(out(1, kAskHandshake)).empty());
  EXPECT_TRUE(device_.gone());
}

TEST_F(VirtualUsbDeviceTest, UnknownEndpointsStall) {
  EXPECT_EQ(handle(in(1, 3, 64))[0].status, kUsbStall);
  EXPECT_EQ(handle(in(2, 9, 64))[0].status, kUsbStall);
  EXPECT_EQ(handle(in(3, 1, 2))[0].status, kUsbStall) << "no room for a payload";
  UsbIpSubmit wrong_way = out(4, {1});
  wrong_way.endpoint = 1;
  EXPECT_EQ(handle(wrong_way)[0].status, kUsbStall);
}

TEST_F(VirtualUsbDeviceTest, ReportsThatNobodyFetchesAreForgotten) {
  for (uint32_t i = 0; i < 200; ++i) handle(out(i, kAskHandshake));
  EXPECT_TRUE(run(milliseconds(5000)).empty());
  EXPECT_TRUE(handle(in(900, 2, 64), milliseconds(5000)).empty());
}

TEST_F(VirtualUsbDeviceTest, VideoTransfersAreFilledAfterTheCommit) {
  EXPECT_TRUE(handle(in(1, 1, 16384)).empty());
  EXPECT_FALSE(device_.nextDue().has_value());
  std::vector<uint8_t> probe(kProbeBytes, 0);
  const UsbIpSubmit commit = {.sequence = 2,
                              .in = false,
                              .endpoint = 0,
                              .length = kProbeBytes,
                              .setup = {0x21, 0x01, 0x00, 0x02, 0x01, 0x00, kProbeBytes, 0x00},
                              .data = probe};
  const auto replies = handle(commit);
  ASSERT_EQ(replies.size(), 2U);
  EXPECT_EQ(replies[0].sequence, 2U);
  EXPECT_EQ(replies[0].actual, kProbeBytes);
  EXPECT_EQ(replies[1].sequence, 1U) << "the transfer that waited gets the first payload";
  EXPECT_EQ(replies[1].actual, 16384U);
}

TEST_F(VirtualUsbDeviceTest, IsochronousTransfersTakeTheirTimeOnTheBus) {
  VirtualUsbDevice device({UsbSpeed::kHigh, VideoTransfer::kIsochronous}, mirn_, pattern_);
  VirtualUsbDevice::Replies replies;
  for (uint32_t i = 0; i < 2; ++i) {
    UsbIpSubmit submit = in(i, 1, 8 * 3072);
    for (uint32_t p = 0; p < 8; ++p) submit.packets.push_back({p * 3072, 3072});
    device.handle(submit, Time(0), &replies);
  }
  EXPECT_TRUE(replies.empty());
  EXPECT_EQ(*device.nextDue(), milliseconds(1));
  device.run(milliseconds(1), &replies);
  EXPECT_EQ(replies.size(), 1U);
  device.run(milliseconds(2), &replies);
  EXPECT_EQ(replies.size(), 2U);
  EXPECT_EQ(readReply(replies[0].bytes()).packet_count, 8U);
}

// ---- the server ----

class UsbIpServerTest : public VirtualUsbDeviceTest {
 protected:
  void SetUp() override {
    std::array<int, 2> ends{};
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
    server_ = std::make_unique<UsbIpServer>(OwnedDescriptor(ends[0]), device_);
    host_.reset(ends[1]);
    end_ = std::async(std::launch::async, [this] { return server_->run(); });
  }
  void TearDown() override {
    server_->stop();
    if (end_.valid()) end_.wait();
  }
  void send(const std::vector<uint8_t>& bytes) {
    ASSERT_EQ(::send(host_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
  }
  HostReply receive(size_t rest) {
    std::vector<uint8_t> bytes(kUsbIpHeaderBytes + rest);
    size_t have = 0;
    while (have < bytes.size()) {
      const ssize_t count = ::recv(host_.get(), bytes.data() + have, bytes.size() - have, 0);
      if (count <= 0) return {};
      have += static_cast<size_t>(count);
    }
    return readReply(bytes);
  }

  OwnedDescriptor host_;
  std::unique_ptr<UsbIpServer> server_;
  std::future<UsbIpEnd> end_;
};

TEST_F(UsbIpServerTest, ServesControlAndHidTransfers) {
  send(submitBytes({.sequence = 1, .in = true, .length = 18, .setup = {0x80, 6, 0, 1, 0, 0, 18, 0}}));
  EXPECT_EQ(receive(18).actual, 18U);
  send(submitBytes(in(2, 2, 64)));
  send(submitBytes(out(3, kAskHandshake)));
  EXPECT_EQ(receive(0).sequence, 3U);
  const HostReply answer = receive(64);
  EXPECT_EQ(answer.sequence, 2U);
  EXPECT_EQ(answer.rest[0], 0xaa);
}

TEST_F(UsbIpServerTest, EndsWhenTheHostLetsGo) {
  host_.reset();
  EXPECT_EQ(end_.get(), UsbIpEnd::kPeerClosed);
}

TEST_F(UsbIpServerTest, EndsWhenItIsStopped) {
  server_->stop();
  EXPECT_EQ(end_.get(), UsbIpEnd::kStopped);
  char byte = 0;
  EXPECT_EQ(::recv(host_.get(), &byte, 1, 0), 0) << "the host sees the end";
}

TEST_F(UsbIpServerTest, EndsWhenTheDeviceIsUnplugged) {
  faults("unplug@1");
  send(submitBytes(out(1, kAskHandshake)));
  EXPECT_EQ(end_.get(), UsbIpEnd::kDeviceGone);
}

TEST_F(UsbIpServerTest, EndsOnNonsense) {
  send(std::vector<uint8_t>(48, 0xff));
  EXPECT_EQ(end_.get(), UsbIpEnd::kBroken);
}

TEST_F(UsbIpServerTest, AHostThatTakesNothingCanBeLeft) {
  std::vector<uint8_t> probe(kProbeBytes, 0);
  send(submitBytes(
      {.sequence = 1, .in = false, .setup = {0x21, 0x01, 0x00, 0x02, 0x01, 0x00, kProbeBytes, 0x00}, .data = probe}));
  for (uint32_t i = 2; i < 200; ++i) send(submitBytes(in(i, 1, 16384)));
  server_->stop();
  EXPECT_EQ(end_.get(), UsbIpEnd::kStopped);
}

TEST_F(UsbIpServerTest, HeldOutputGoesOnWhenReleased) {
  server_->setHoldOutput(true);
  send(submitBytes({.sequence = 1, .in = true, .length = 1, .setup = {0x80, 8, 0, 0, 0, 0, 1, 0}}));
  EXPECT_EQ(receive(1).sequence, 1U);
  send(submitBytes(out(2, kAskHandshake)));
  send(submitBytes({.sequence = 3, .in = true, .length = 1, .setup = {0x80, 8, 0, 0, 0, 0, 1, 0}}));
  EXPECT_EQ(receive(1).sequence, 3U);
  server_->setHoldOutput(false);
  EXPECT_EQ(receive(0).sequence, 2U);
}

// ---- the controller's files ----

constexpr char kStatus[] =
    "hub port sta spd dev      sockfd local_busid\n"
    "hs  0000 006 003 00010002 000003 1-1\n"
    "hs  0001 004 000 00000000 000000 0-0\n"
    "ss  0008 004 000 00000000 000000 0-0\n";

class VhciHostTest : public testing::Test {
 protected:
  void SetUp() override {
    char name[] = "/tmp/mirn-vhci-XXXXXX";
    ASSERT_NE(::mkdtemp(name), nullptr);
    folder_ = name;
    write("status", kStatus);
    write("attach", "");
  }
  void TearDown() override { std::filesystem::remove_all(folder_); }
  void write(const std::string& file, const std::string& text) const { std::ofstream(folder_ + "/" + file) << text; }
  std::string attached() const {
    std::ifstream file(folder_ + "/attach");
    return {std::istreambuf_iterator<char>(file), {}};
  }

  std::string folder_;
  std::optional<int> port_;
  std::string detail_;
};

TEST_F(VhciHostTest, ReadsThePorts) {
  const std::vector<VhciPort> ports = VhciHost(folder_).ports();
  ASSERT_EQ(ports.size(), 3U);
  EXPECT_FALSE(ports[0].free);
  EXPECT_TRUE(ports[1].free);
  EXPECT_EQ(ports[2].number, 8);
  EXPECT_EQ(ports[2].speed, UsbSpeed::kSuper);
  EXPECT_TRUE(parseVhciStatus("").empty());
  EXPECT_TRUE(parseVhciStatus("nonsense\nhs\nhs x 4\n").empty());
}

TEST_F(VhciHostTest, TakesTheFirstFreePortOfTheSpeed) {
  EXPECT_EQ(VhciHost(folder_).attach(42, UsbSpeed::kHigh, &port_, &detail_), VhciError::kNone) << detail_;
  EXPECT_EQ(port_, 1);
  EXPECT_EQ(attached(), "1 42 65538 3");
  port_.reset();
  EXPECT_EQ(VhciHost(folder_).attach(7, UsbSpeed::kSuper, &port_, &detail_), VhciError::kNone) << detail_;
  EXPECT_EQ(attached().substr(0, 11), "8 7 65538 5");
}

TEST_F(VhciHostTest, SaysWhatIsWrongWithAPort) {
  const VhciHost host(folder_);
  port_ = 0;
  EXPECT_EQ(host.attach(1, UsbSpeed::kHigh, &port_, &detail_), VhciError::kPortTaken);
  EXPECT_EQ(detail_, "port 0 of vhci-hcd is taken");
  port_ = 99;
  EXPECT_EQ(host.attach(1, UsbSpeed::kHigh, &port_, &detail_), VhciError::kNoSuchPort);
  port_ = 8;
  EXPECT_EQ(host.attach(1, UsbSpeed::kHigh, &port_, &detail_), VhciError::kNoSuchPort);
  EXPECT_EQ(detail_, "port 8 is not a high-speed port");
  write("status", "hs  0000 006 003 00010002 000003 1-1\n");
  port_.reset();
  EXPECT_EQ(host.attach(1, UsbSpeed::kHigh, &port_, &detail_), VhciError::kNoFreePort);
  EXPECT_EQ(VhciHost(folder_ + "/none").attach(1, UsbSpeed::kHigh, &port_, &detail_), VhciError::kNoModule);
}

TEST_F(VhciHostTest, APlugTellsWhenTheHostLetsGo) {
  // Nobody takes the kernel's end of the socket here: it is closed right after the plugging.
  const auto mirn = std::make_shared<VirtualMirn>();
  UsbPlug plug({UsbShape(), std::nullopt, VhciHost(folder_)}, mirn, std::make_shared<TestPattern>());
  std::promise<UsbIpEnd> end;
  plug.setEndListener([&](UsbIpEnd reason) { end.set_value(reason); });
  ASSERT_EQ(plug.plug(&detail_), VhciError::kNone) << detail_;
  EXPECT_TRUE(mirn->plugged());
  EXPECT_EQ(end.get_future().get(), UsbIpEnd::kPeerClosed);
  EXPECT_FALSE(plug.plugged());
  plug.unplug();
  EXPECT_FALSE(mirn->plugged());
}

TEST_F(VhciHostTest, APlugThatFailsLeavesNothing) {
  const auto mirn = std::make_shared<VirtualMirn>();
  UsbPlug plug({UsbShape(), 0, VhciHost(folder_)}, mirn, std::make_shared<TestPattern>());
  EXPECT_EQ(plug.plug(&detail_), VhciError::kPortTaken);
  EXPECT_FALSE(plug.plugged());
  EXPECT_FALSE(plug.port().has_value());
}

}  // namespace
}  // namespace mirn
