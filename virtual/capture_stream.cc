#include "virtual/capture_stream.h"

#include <algorithm>
#include <cerrno>
#include <ctime>

namespace mirn {
namespace {

constexpr size_t kPoolPictures = 8;
constexpr size_t kCorruptBytes = 64;

TargetFormat targetFormat(FourCharCode code) {
  if (code == kCaptureYuyv) {
    return TargetFormat::kYuyv;
  }
  return code == kCaptureNv12 ? TargetFormat::kNv12 : TargetFormat::kMjpeg;
}

FrameLayout layoutOf(const CaptureFormat& format) {
  FrameLayout layout;
  layout.pixelFormat = format.pixelFormat;
  layout.width = format.width;
  layout.height = format.height;
  layout.matrix = YuvMatrix::kBt601;  // what VirtualTarget's frames are made with, as it says in their format
  layout.range = YuvRange::kVideo;
  return layout;
}

std::chrono::nanoseconds threadTime() {
  timespec used{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used);
  return std::chrono::seconds(used.tv_sec) + std::chrono::nanoseconds(used.tv_nsec);
}

std::chrono::nanoseconds intervalOf(const CaptureFormat& format) {
  const double rate = format.interval.framesPerSecond();
  return rate > 0 ? std::chrono::nanoseconds(static_cast<int64_t>(1e9 / rate)) : std::chrono::nanoseconds(0);
}

}  // namespace

VirtualCaptureDevice::Stream::Stream(VirtualCaptureDevice& device, const CaptureFormat& format,
                                     std::vector<VideoFault> faults)
    : device_(device),
      clock_(device.settings_.clock != nullptr ? *device.settings_.clock : realClock()),
      format_(format),
      stepped_(device.settings_.frames_per_second == 0),
      interval_(intervalOf(format)),
      faults_(std::move(faults)),
      random_(device.settings_.seed),
      pool_(static_cast<size_t>(format.width), static_cast<size_t>(format.height), kPixelFormatBGRA, kPoolPictures),
      thread_([this] { run(); }) {}

VirtualCaptureDevice::Stream::~Stream() {
  stop();
}

void VirtualCaptureDevice::Stream::stop() {
  {
    const MutexGuard guard(mutex_);
    stopping_ = true;
    wake_.notify_all();
  }
  if (thread_.joinable()) {
    thread_.join();
  }
}

void VirtualCaptureDevice::Stream::end(const CaptureError& error) {
  const MutexGuard guard(mutex_);
  if (!end_) {
    end_ = error;
  }
  wake_.notify_all();
}

void VirtualCaptureDevice::Stream::setFaults(std::vector<VideoFault> faults) {
  const MutexGuard guard(mutex_);
  faults_ = std::move(faults);
  frame_ = 0;
}

bool VirtualCaptureDevice::Stream::step(int frames) {
  mutex_.lock();
  if (!stepped_ || ended_) {
    mutex_.unlock();
    return false;
  }
  wanted_ += static_cast<uint64_t>(std::max(frames, 0));
  const uint64_t until = wanted_;
  wake_.notify_all();
  while (!ended_ && played_ < until) {
    played_wake_.wait(mutex_);
  }
  const bool done = played_ >= until;
  mutex_.unlock();
  return done;
}

void VirtualCaptureDevice::Stream::run() {
  due_ = clock_.now() + (stepped_ ? std::chrono::milliseconds(0) : device_.settings_.warm_up);
  while (waitForFrame()) {
    Verdict verdict;
    {
      const MutexGuard guard(mutex_);
      verdict = judge(++frame_);
    }
    if (!play(verdict)) {
      break;
    }
    deliver(verdict);
    const MutexGuard guard(mutex_);
    ++played_;
    played_wake_.notify_all();
  }
  tellEnd();
}

bool VirtualCaptureDevice::Stream::waitForFrame() {
  const MutexGuard guard(mutex_);
  if (stepped_) {
    while (!stopping_ && !end_ && played_ >= wanted_) {
      wake_.wait(mutex_);
    }
    return !stopping_ && !end_;
  }
  const auto jitter = device_.settings_.jitter.count();
  const auto late = jitter > 0 ? std::chrono::microseconds(random_() % static_cast<uint64_t>(jitter + 1))
                               : std::chrono::microseconds(0);
  if (!waitUntil(due_ + late)) {
    return false;
  }
  due_ += interval_;
  // A thread that comes too late doesn't send a burst: what a real device would have sent meanwhile is lost.
  for (const Time now = clock_.now(); interval_.count() > 0 && due_ + interval_ < now;) {
    due_ += interval_;
    ++sequence_;
  }
  return true;
}

bool VirtualCaptureDevice::Stream::waitUntil(Time time) {
  while (!stopping_ && !end_ && clock_.now() < time) {
    clock_.waitUntil(wake_, mutex_, time);
  }
  return !stopping_ && !end_;
}

VirtualCaptureDevice::Stream::Verdict VirtualCaptureDevice::Stream::judge(uint64_t frame) const {
  Verdict verdict;
  for (const VideoFault& fault : faults_) {
    if (!fault.hits(frame)) {
      continue;
    }
    switch (fault.kind) {
      case VideoFaultKind::kLose:
        verdict.lose = true;
        break;
      case VideoFaultKind::kFlag:
        verdict.flag = true;
        break;
      case VideoFaultKind::kStall:
        verdict.stall += std::chrono::milliseconds(fault.value);
        break;
      case VideoFaultKind::kUnplug:
        verdict.unplug = true;
        break;
      case VideoFaultKind::kFail:
        verdict.fail = true;
        break;
      case VideoFaultKind::kTruncate:
      case VideoFaultKind::kCorrupt:
      case VideoFaultKind::kZero:
        verdict.damage.push_back(fault);
        break;
    }
  }
  return verdict;
}

bool VirtualCaptureDevice::Stream::play(const Verdict& verdict) {
  if (verdict.stall.count() > 0) {
    const MutexGuard guard(mutex_);
    const Time until = clock_.now() + verdict.stall;
    if (!waitUntil(until)) {
      return false;
    }
    due_ = std::max(due_, until);
  }
  if (verdict.unplug) {
    device_.unplug();  // comes back as end()
    return false;
  }
  if (verdict.fail) {
    end(device_.failure(EIO, "the driver reported an error", "Unplug the device and plug it in again."));
    return false;
  }
  const MutexGuard guard(device_.mutex_);
  ++device_.counters_.frames;
  device_.counters_.lost += verdict.lose ? 1 : 0;
  device_.counters_.damaged += !verdict.lose && (verdict.flag || !verdict.damage.empty()) ? 1 : 0;
  return true;
}

void VirtualCaptureDevice::Stream::deliver(const Verdict& verdict) {
  const uint32_t sequence = sequence_++;
  draw();
  if (verdict.lose) {
    return;
  }
  if (verdict.flag) {
    device_.deliverDamagedFrame();
    return;
  }
  damage(verdict.damage);
  PixelBufferRef picture = pool_.acquire();
  if (!picture) {
    device_.deliverLateFrame();
    return;
  }
  if (converter_.convert(bytes_.data(), bytes_.size(), layoutOf(format_), *picture) != ConvertResult::kConverted) {
    device_.deliverDamagedFrame();
    return;
  }
  device_.deliverFrame(std::move(picture), {clock_.now().count(), sequence});
}

void VirtualCaptureDevice::Stream::draw() {
  const auto before = threadTime();
  device_.target_->render(targetFormat(format_.pixelFormat), format_.width, format_.height, bytes_);
  const auto used = threadTime() - before;
  const MutexGuard guard(device_.mutex_);
  device_.counters_.drawing += used;
}

void VirtualCaptureDevice::Stream::damage(const std::vector<VideoFault>& faults) {
  for (const VideoFault& fault : faults) {
    if (fault.kind == VideoFaultKind::kZero) {
      bytes_.clear();
    } else if (fault.kind == VideoFaultKind::kTruncate) {
      bytes_.resize(std::min(bytes_.size(), fault.value != 0 ? fault.value : bytes_.size() / 2));
    } else {
      // A start-of-frame marker among random bytes: no decoder takes it for entropy-coded data.
      const size_t middle = bytes_.size() / 2;
      for (size_t i = middle; i < std::min(bytes_.size(), middle + kCorruptBytes); ++i) {
        bytes_[i] = static_cast<uint8_t>(i % 2 == 0 ? 0xFF : 0xC0 + random_() % 16);
      }
    }
  }
}

void VirtualCaptureDevice::Stream::tellEnd() {
  bool told = false;
  CaptureError error;
  {
    const MutexGuard guard(mutex_);
    told = !stopping_;  // a stop is the user's own wish: nobody is told
    error = end_;
  }
  if (told) {
    device_.deliverStopped(error);
  }
  const MutexGuard guard(mutex_);
  ended_ = true;  // after the telling: who waits for the end may look at the session then
  played_wake_.notify_all();
}

}  // namespace mirn
