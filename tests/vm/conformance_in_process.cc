#include <string>
#include <vector>

#include "tests/vm/conformance_backend.h"
#include "virtual/virtual_hid.h"

namespace mirn {

namespace {

class InProcess : public ConformanceBackend {
 public:
  explicit InProcess(std::vector<std::shared_ptr<VirtualMirn>> devices) : devices_(devices), hid_(devices) {}
  VirtualMirn& mirn(size_t index) override { return *devices_.at(index); }
  void plug(size_t index) override { mirn(index).plug(); }
  void unplug(size_t index) override { mirn(index).unplug(); }

 private:
  std::vector<std::shared_ptr<VirtualMirn>> devices_;
  ScopedVirtualHid hid_;
};

}  // namespace

std::unique_ptr<ConformanceBackend> makeConformanceBackend(size_t devices) {
  std::vector<std::shared_ptr<VirtualMirn>> all;
  for (size_t i = 0; i < devices; ++i) {
    VirtualMirnSettings settings;
    settings.serial = "conformance-" + std::to_string(i);
    settings.topology = "virtual-" + std::to_string(i + 1);
    all.push_back(std::make_shared<VirtualMirn>(settings));
  }
  return std::make_unique<InProcess>(std::move(all));
}

}  // namespace mirn
