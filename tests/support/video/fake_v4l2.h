#pragma once

// A kernel in the process: nodes with priorities, ownership, formats, buffers and faults, as uvcvideo behaves.

#include <linux/videodev2.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "deps/pellum/thread_annotations.h"
#include "platform/linux/v4l2_calls.h"
#include "platform/linux/v4l2_catalog.h"

namespace mirn::test {

struct FakeSize {
  uint32_t pixelFormat;
  uint32_t width;
  uint32_t height;
  std::vector<uint32_t> rates;  // frames per second
};

/// One node. Configure it before it is opened; push frames while it streams.
struct FakeNode {
  std::vector<FakeSize> sizes = {{V4L2_PIX_FMT_YUYV, 64, 32, {30}}};
  std::string card = "Fake Card";
  uint32_t capabilities = V4L2_CAP_VIDEO_CAPTURE | V4L2_CAP_STREAMING;
  bool otherHoldsRecord = false;  // another program at V4L2_PRIORITY_RECORD
  bool otherOwns = false;         // another program made the driver's first S_FMT
  bool noPriorities = false;
  uint32_t priority = V4L2_PRIORITY_UNSET;  // what was asked for last
  int openError = 0;
  std::map<unsigned long, int> errors;  // an ioctl that fails with this from now on
  v4l2_pix_format format{};
  v4l2_fract interval{};  // a new format brings its first rate
  v4l2_fract taken{};     // what the driver takes, whatever interval is wished; 0/0 = the wish

  // State.
  bool gone = false;
  bool pollError = false;
  bool streaming = false;
  struct Buffer {
    std::vector<uint8_t> bytes;
    bool queued = false;
    bool mapped = false;
  };
  std::vector<Buffer> buffers;
  struct Done {
    uint32_t index;
    uint32_t bytes;
    uint32_t flags;
  };
  std::vector<Done> done;
  uint32_t sequence = 0;
  std::set<int> open;
};

class FakeV4l2 final : public V4l2Calls {
 public:
  FakeV4l2();
  ~FakeV4l2() override;

  FakeNode& node(const std::string& path);

  /// Fills the next queued buffer. False when none is queued or nothing streams.
  bool push(const std::string& path, const std::vector<uint8_t>& bytes, uint32_t flags = 0);
  struct Frame {
    std::vector<uint8_t> bytes;
    uint32_t flags = 0;
  };
  /// Several that are found waiting at once, as after a while without processor time. False, and nothing done, when not
  /// that many buffers are queued.
  bool pushTogether(const std::string& path, const std::vector<Frame>& frames);
  /// The device is pulled out: every call answers ENODEV, poll says so.
  void unplug(const std::string& path);
  void setPollError(const std::string& path);
  void fail(const std::string& path, unsigned long request, int code);
  /// Names of the calls so far ("S_FMT", "STREAMON", ...), without polls and frame traffic.
  std::vector<std::string> trace(const std::string& path);
  void clearTrace();
  /// When the last frame was taken out, CLOCK_MONOTONIC; 0 = none yet.
  int64_t lastDequeueNs() const { return lastDequeueNs_.load(std::memory_order_relaxed); }
  size_t mappings();
  size_t openDescriptors();

  int open(const std::string& path, int& fd) override;
  void close(int fd) override;
  int control(int fd, unsigned long request, void* argument) override;
  void* map(int fd, size_t bytes, uint64_t offset, int& error) override;
  void unmap(void* start, size_t bytes) override;
  V4l2Wait wait(int fd, int wakeFd, int timeoutMs) override;

 private:
  int answer(FakeNode& node, unsigned long request, void* argument) MIRN_REQUIRES(lock_);
  int enumerate(FakeNode& node, unsigned long request, void* argument) MIRN_REQUIRES(lock_);
  int setFormat(FakeNode& node, v4l2_format& format) MIRN_REQUIRES(lock_);
  int requestBuffers(FakeNode& node, v4l2_requestbuffers& request) MIRN_REQUIRES(lock_);
  int dequeue(FakeNode& node, v4l2_buffer& buffer) MIRN_REQUIRES(lock_);
  bool fill(FakeNode& node, const std::vector<uint8_t>& bytes, uint32_t flags) MIRN_REQUIRES(lock_);
  void wake() MIRN_REQUIRES(lock_);

  Mutex lock_;
  std::map<std::string, FakeNode> nodes_ MIRN_GUARDED_BY(lock_);
  std::map<int, std::string> descriptors_ MIRN_GUARDED_BY(lock_);
  std::map<std::string, std::vector<std::string>> trace_ MIRN_GUARDED_BY(lock_);
  std::set<void*> mapped_ MIRN_GUARDED_BY(lock_);
  int nextFd_ MIRN_GUARDED_BY(lock_) = 1000;
  std::atomic<int64_t> lastDequeueNs_{0};
  int changedFd_ = -1;  // becomes readable when anything changes
};

/// A list of nodes that a test edits.
class FakeCatalog final : public V4l2Catalog {
 public:
  std::vector<V4l2NodeInfo> list() override { return nodes; }
  std::vector<V4l2NodeInfo> nodes;
};

inline V4l2NodeInfo nodeInfo(const std::string& path, const std::string& product, const std::string& topology = "1-1",
                             int index = 0) {
  V4l2NodeInfo info;
  info.path = path;
  info.key = path + "#" + topology;
  info.sortKey = topology;
  info.product = product;
  info.card = "Fake Card";
  info.uniqueId = "bus-" + topology;
  info.topologyPath = topology;
  info.index = index;
  return info;
}

}  // namespace mirn::test
