#include "host/host_textures.h"

#include <atomic>
#include <utility>

namespace mirn {
namespace {

// Ids are unique in the process, as they are with engines that use addresses: two engines share the plug-in's maps.
std::atomic<int64_t> g_next_texture_id{1};

}  // namespace

Engine::Registry::Registry() : raster_([this] { rasterLoop(); }) {}

Engine::Registry::~Registry() {
  stop();
}

int64_t Engine::Registry::registerTexture(std::shared_ptr<ExternalTexture> texture) {
  const MutexGuard guard(mutex_);
  if (stopping_) {
    return 0;
  }
  const int64_t id = g_next_texture_id.fetch_add(1);
  entries_[id].texture = std::move(texture);
  return id;
}

void Engine::Registry::textureFrameAvailable(int64_t id) {
  const MutexGuard guard(mutex_);
  const auto found = entries_.find(id);
  if (found == entries_.end() || stopping_) {
    return;
  }
  ++found->second.statistics.marks;
  if (!std::exchange(found->second.marked, true)) {
    jobs_.push_back({id, nullptr});
    ++jobs_queued_;
    wake_.notify_one();
  }
}

void Engine::Registry::unregisterTexture(int64_t id) {
  const MutexGuard guard(mutex_);
  const auto found = entries_.find(id);
  if (found == entries_.end() || stopping_) {
    return;
  }
  jobs_.push_back({id, std::move(found->second.texture)});
  ++jobs_queued_;
  entries_.erase(found);
  wake_.notify_one();
}

void Engine::Registry::rasterLoop() {
  mutex_.lock();
  while (true) {
    while (!stopping_ && jobs_.empty()) {
      wake_.wait(mutex_);
    }
    if (stopping_) {
      break;
    }
    if (jobs_.front().leaving == nullptr) {
      waitForTick();
      if (stopping_) {
        break;
      }
    }
    Job job = std::move(jobs_.front());
    jobs_.pop_front();
    mutex_.unlock();
    if (job.leaving != nullptr) {
      job.leaving->onTextureUnregistered(job.leaving.get());
      job.leaving.reset();
    } else {
      look(job.id);
    }
    mutex_.lock();
    ++jobs_done_;
    served_.notify_all();
  }
  mutex_.unlock();
}

void Engine::Registry::waitForTick() {
  while (!stopping_ && rate_ > 0 && std::chrono::steady_clock::now() < next_tick_) {
    wake_.wait_until(mutex_, next_tick_);
  }
  if (rate_ > 0) {
    next_tick_ = std::chrono::steady_clock::now() + std::chrono::microseconds(1000000 / rate_);
  }
}

void Engine::Registry::look(int64_t id) {
  std::shared_ptr<ExternalTexture> texture;
  {
    const MutexGuard guard(mutex_);
    const auto found = entries_.find(id);
    if (found == entries_.end()) {
      return;  // unregistered after the mark
    }
    found->second.marked = false;  // before the look: a mark that comes during it asks for another one
    texture = found->second.texture;
  }
  const PixelBufferRef picture = texture != nullptr ? texture->copyPixelBuffer() : PixelBufferRef();
  PixelBufferRef before;  // let go after the lock
  {
    const MutexGuard guard(mutex_);
    const auto found = entries_.find(id);
    if (found != entries_.end()) {
      if (picture) {
        ++found->second.statistics.taken;
        before = std::exchange(found->second.latest, picture);
      } else {
        ++found->second.statistics.empty;
      }
    }
  }
  const MutexGuard guard(listener_mutex_);
  const std::shared_ptr<FrameListener> listener = listener_;
  if (picture && listener != nullptr) {
    (*listener)(id, picture);
  }
}

void Engine::Registry::setFrameListener(FrameListener listener) {
  auto next = listener != nullptr ? std::make_shared<FrameListener>(std::move(listener)) : nullptr;
  if (std::this_thread::get_id() == raster_.get_id()) {
    listener_ = std::move(next);  // from within the listener: this thread holds the lock already
    return;
  }
  const MutexGuard guard(listener_mutex_);
  listener_.swap(next);
}

PixelBufferRef Engine::Registry::latestPicture(int64_t id) const {
  const MutexGuard guard(mutex_);
  const auto found = entries_.find(id);
  return found == entries_.end() ? PixelBufferRef() : found->second.latest;
}

TextureStatistics Engine::Registry::statistics(int64_t id) const {
  const MutexGuard guard(mutex_);
  const auto found = entries_.find(id);
  return found == entries_.end() ? TextureStatistics() : found->second.statistics;
}

size_t Engine::Registry::count() const {
  const MutexGuard guard(mutex_);
  return entries_.size();
}

void Engine::Registry::setRate(int per_second) {
  const MutexGuard guard(mutex_);
  rate_ = per_second;
  wake_.notify_one();
}

void Engine::Registry::sync() {
  if (std::this_thread::get_id() == raster_.get_id()) {
    return;
  }
  mutex_.lock();
  const uint64_t until = jobs_queued_;
  while (!stopping_ && jobs_done_ < until) {
    served_.wait(mutex_);
  }
  mutex_.unlock();
}

void Engine::Registry::stop() {
  {
    const MutexGuard guard(mutex_);
    stopping_ = true;
    wake_.notify_all();
    served_.notify_all();
  }
  if (raster_.joinable()) {
    raster_.join();
  }
  std::map<int64_t, Entry> entries;
  std::deque<Job> jobs;
  const MutexGuard guard(mutex_);
  entries.swap(entries_);
  jobs.swap(jobs_);
}

}  // namespace mirn
