#include "virtual/usb/usb_plug.h"

#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>

namespace mirn {

namespace {

// Room for some video transfers on their way, as far as the system lets us.
constexpr int kSocketBytes = 4 * 1024 * 1024;

// The kernel needs a moment to clean a port up after an unplugging.
constexpr auto kPortPatience = std::chrono::seconds(5);
constexpr auto kPortRetry = std::chrono::milliseconds(10);

void enlarge(int socket) {
  // The FORCE variants need a privilege; without it the default sizes do, only slower.
  static_cast<void>(::setsockopt(socket, SOL_SOCKET, SO_SNDBUFFORCE, &kSocketBytes, sizeof(kSocketBytes)));
  static_cast<void>(::setsockopt(socket, SOL_SOCKET, SO_RCVBUFFORCE, &kSocketBytes, sizeof(kSocketBytes)));
}

}  // namespace

UsbPlug::UsbPlug(Settings settings, std::shared_ptr<VirtualMirn> mirn, std::shared_ptr<FrameSource> frames)
    : settings_(std::move(settings)), mirn_(std::move(mirn)), frames_(std::move(frames)) {}

UsbPlug::~UsbPlug() {
  unplug();
}

VhciError UsbPlug::plug(std::string* detail) {
  if (plugged()) return VhciError::kNone;
  unplug();  // what is left of a device that unplugged itself
  std::array<int, 2> ends{};
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) {
    *detail = std::string("no socket pair: ") + std::strerror(errno);
    return VhciError::kFailed;
  }
  OwnedDescriptor ours(ends[0]);
  const OwnedDescriptor kernels(ends[1]);
  enlarge(ours.get());
  enlarge(kernels.get());

  const auto deadline = std::chrono::steady_clock::now() + kPortPatience;
  VhciError error = VhciError::kNone;
  for (;;) {
    port_ = settings_.port;
    error = settings_.host.attach(kernels.get(), settings_.shape.speed, &port_, detail);
    const bool busy = error == VhciError::kPortTaken || error == VhciError::kNoFreePort;
    if (!busy || !plugged_before_ || std::chrono::steady_clock::now() > deadline) break;
    std::this_thread::sleep_for(kPortRetry);
  }
  if (error != VhciError::kNone) {
    port_.reset();
    return error;
  }
  plugged_before_ = true;
  mirn_->plug();
  device_ = std::make_unique<VirtualUsbDevice>(settings_.shape, *mirn_, *frames_);
  server_ = std::make_unique<UsbIpServer>(std::move(ours), *device_);
  server_->setHoldOutput(hold_output_);
  mirn_listener_ = mirn_->addListener([this](const VirtualMirnEvent& event) {
    if (event.kind == VirtualMirnEvent::Kind::kUnplugged) server_->wake();
  });
  serving_.store(true);
  thread_ = std::thread(&UsbPlug::serve, this);
  return VhciError::kNone;
}

void UsbPlug::serve() {
  const UsbIpEnd end = server_->run();
  serving_.store(false);
  if (end != UsbIpEnd::kStopped && end_listener_) end_listener_(end);
}

void UsbPlug::unplug() {
  if (server_ == nullptr) return;
  server_->stop();
  thread_.join();
  mirn_->removeListener(mirn_listener_);
  server_.reset();  // closes the socket: this is what the kernel sees
  device_.reset();
  port_.reset();
  mirn_->unplug();
}

void UsbPlug::holdOutput(bool hold) {
  hold_output_ = hold;
  if (server_ != nullptr) server_->setHoldOutput(hold);
}

}  // namespace mirn
