// Where the conformance suite finds its devices: in this process, or as USB devices of this machine's kernel.
#pragma once

#include <cstddef>
#include <memory>

#include "virtual/virtual_mirn.h"

namespace mirn {

// Bound to one thread. The n-th device has the serial "conformance-<n>", counted from 0.
class ConformanceBackend {
 public:
  virtual ~ConformanceBackend() = default;

  virtual VirtualMirn& mirn(size_t index = 0) = 0;

  // Return when an open() would succeed, or fail.
  virtual void plug(size_t index = 0) = 0;
  virtual void unplug(size_t index = 0) = 0;
};

// All devices are plugged in. Each build of the suite links one definition.
std::unique_ptr<ConformanceBackend> makeConformanceBackend(size_t devices = 1);

}  // namespace mirn
