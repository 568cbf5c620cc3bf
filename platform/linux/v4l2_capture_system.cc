#include "platform/linux/v4l2_capture_system.h"

#include <utility>

#include "platform/linux/v4l2_device.h"

namespace mirn {

V4l2CaptureSystem::V4l2CaptureSystem(std::shared_ptr<V4l2Catalog> catalog, std::shared_ptr<V4l2Calls> calls)
    : catalog_(std::move(catalog)), calls_(std::move(calls)) {}

V4l2CaptureSystem::~V4l2CaptureSystem() = default;

std::vector<std::shared_ptr<CaptureDevice>> V4l2CaptureSystem::devices() {
  MutexGuard guard(lock_);
  std::vector<std::shared_ptr<CaptureDevice>> found;
  std::map<std::string, std::weak_ptr<V4l2Device>> stillThere;
  for (const V4l2NodeInfo& info : catalog_->list()) {
    const auto entry = known_.find(info.key);
    std::shared_ptr<V4l2Device> device = entry != known_.end() ? entry->second.lock() : nullptr;
    if (!device || !device->isConnected()) {
      device = std::make_shared<V4l2Device>(info, calls_);
    }
    const V4l2Look look = device->look();
    // What may not be opened is listed all the same, so that opening it can say why; but not a metadata node.
    if (look == V4l2Look::kCapture || (look == V4l2Look::kInaccessible && info.index == 0)) {
      stillThere[info.key] = device;
      found.push_back(std::move(device));
    }
  }
  known_ = std::move(stillThere);
  return found;
}

CaptureSystem& defaultCaptureSystem() {
  // Lives as long as the process: sessions may be stopped while static objects are destroyed.
  static V4l2CaptureSystem* const system = new V4l2CaptureSystem(systemV4l2Catalog(), systemV4l2Calls());
  return *system;
}

}  // namespace mirn
