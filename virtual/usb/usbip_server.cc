#include "virtual/usb/usbip_server.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

#include "platform/clock.h"

namespace mirn {

namespace {

constexpr size_t kReceiveBytes = 64 * 1024;

}  // namespace

UsbIpServer::UsbIpServer(OwnedDescriptor socket, VirtualUsbDevice& device)
    : socket_(std::move(socket)),
      wake_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      device_(device),
      receive_buffer_(kReceiveBytes) {}

UsbIpEnd UsbIpServer::run() {
  const UsbIpEnd end = wake_.valid() ? runUntilTheEnd() : UsbIpEnd::kBroken;
  ::shutdown(socket_.get(), SHUT_RDWR);  // what the host sees as the unplugging
  return end;
}

UsbIpEnd UsbIpServer::runUntilTheEnd() {
  for (;;) {
    if (const std::optional<UsbIpEnd> end = serve()) return *end;
    waitForWork();
    if (readable_ && !receive()) return stopped_.load() ? UsbIpEnd::kStopped : UsbIpEnd::kPeerClosed;
  }
}

std::optional<UsbIpEnd> UsbIpServer::serve() {
  if (stopped_.load()) return UsbIpEnd::kStopped;
  device_.setHoldOutput(hold_output_.load());
  while (std::optional<UsbIpRequest> request = parser_.next()) {
    device_.handle(std::move(*request), clock().now(), &replies_);
  }
  device_.run(clock().now(), &replies_);
  if (!sendAll(&replies_)) return stopped_.load() ? UsbIpEnd::kStopped : UsbIpEnd::kPeerClosed;
  if (parser_.broken()) return UsbIpEnd::kBroken;
  if (device_.gone()) return UsbIpEnd::kDeviceGone;
  return std::nullopt;
}

int UsbIpServer::timeoutMs(std::chrono::nanoseconds now) const {
  const std::optional<std::chrono::nanoseconds> due = device_.nextDue();
  if (!due) return -1;
  if (*due <= now) return 0;
  constexpr int64_t kLongestMs = 60000;
  const int64_t rounded_up = (*due - now).count() / 1000000 + 1;
  return static_cast<int>(std::min(rounded_up, kLongestMs));
}

void UsbIpServer::waitForWork() {
  std::array<pollfd, 2> waiting = {pollfd{socket_.get(), POLLIN, 0}, pollfd{wake_.get(), POLLIN, 0}};
  // ppoll would wait to the microsecond; a millisecond is finer than any time a device promises, except the pace of
  // isochronous packets, whose transfers are 4 ms long.
  ::poll(waiting.data(), waiting.size(), timeoutMs(clock().now()));
  readable_ = waiting[0].revents != 0;
  if (waiting[1].revents != 0) {
    uint64_t count = 0;
    while (::read(wake_.get(), &count, sizeof(count)) > 0) {
    }
  }
}

bool UsbIpServer::receive() {
  const ssize_t count = ::recv(socket_.get(), receive_buffer_.data(), receive_buffer_.size(), MSG_DONTWAIT);
  if (count < 0) return errno == EINTR || errno == EAGAIN || errno == EWOULDBLOCK;
  if (count == 0) return false;
  parser_.feed({receive_buffer_.data(), static_cast<size_t>(count)});
  return true;
}

bool UsbIpServer::sendAll(std::vector<UsbIpReply>* replies) {
  bool sound = true;
  for (const UsbIpReply& reply : *replies) sound = sound && send(reply);
  replies->clear();
  return sound;
}

bool UsbIpServer::send(const UsbIpReply& reply) {
  std::array<iovec, 3> parts{};
  const auto part = [](std::span<const uint8_t> bytes) {
    return iovec{const_cast<uint8_t*>(bytes.data()), bytes.size()};  // sendmsg only reads it
  };
  parts[0] = part(reply.header);
  parts[1] = part(reply.data);
  parts[2] = part(reply.table);
  msghdr message{};
  message.msg_iov = parts.data();
  message.msg_iovlen = parts.size();
  while (message.msg_iovlen > 0) {
    const ssize_t count = ::sendmsg(socket_.get(), &message, MSG_NOSIGNAL);
    if (count < 0) {
      if (errno == EINTR && !stopped_.load()) continue;
      return false;
    }
    auto left = static_cast<size_t>(count);
    while (message.msg_iovlen > 0 && left >= message.msg_iov->iov_len) {
      left -= message.msg_iov->iov_len;
      ++message.msg_iov;
      --message.msg_iovlen;
    }
    if (message.msg_iovlen > 0) {
      message.msg_iov->iov_base = static_cast<uint8_t*>(message.msg_iov->iov_base) + left;
      message.msg_iov->iov_len -= left;
    }
  }
  return true;
}

void UsbIpServer::stop() {
  stopped_.store(true);
  ::shutdown(socket_.get(), SHUT_RDWR);
  wake();
}

void UsbIpServer::wake() {
  const uint64_t one = 1;
  // Fails only when the counter is full, and then the server is awake anyway.
  if (::write(wake_.get(), &one, sizeof(one)) < 0) return;
}

void UsbIpServer::setHoldOutput(bool hold) {
  hold_output_.store(hold);
  wake();
}

}  // namespace mirn
