#pragma once

// All V4L2 capture devices of the machine.

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "deps/pellum/thread_annotations.h"
#include "platform/capture.h"
#include "platform/linux/v4l2_calls.h"
#include "platform/linux/v4l2_catalog.h"

namespace mirn {

class V4l2Device;

/// Thread-safe. A node that somebody holds is the same object at every call, until it is pulled out.
class V4l2CaptureSystem final : public CaptureSystem {
 public:
  V4l2CaptureSystem(std::shared_ptr<V4l2Catalog> catalog, std::shared_ptr<V4l2Calls> calls);
  ~V4l2CaptureSystem() override;

  std::vector<std::shared_ptr<CaptureDevice>> devices() override MIRN_EXCLUDES(lock_);

 private:
  const std::shared_ptr<V4l2Catalog> catalog_;
  const std::shared_ptr<V4l2Calls> calls_;
  Mutex lock_;
  std::map<std::string, std::weak_ptr<V4l2Device>> known_ MIRN_GUARDED_BY(lock_);  // by V4l2NodeInfo::key
};

}  // namespace mirn
