#include "device/hid_device.h"

#include "platform/mirn_identity.h"

namespace mirn {

nuvra_hid_device::nuvra_hid_device(uint16_t vendor, uint16_t product)
    : functions_(&hidFunctions()), handle_(_open_hid_device(vendor, product)) {
  if (handle_ == nullptr) {
    handle_ = _open_hid_device(g_fallback_vid, product);
  }
}

nuvra_hid_device::~nuvra_hid_device() {
  if (handle_ != nullptr) {
    functions_->close(handle_);
  }
}

int nuvra_hid_device::send_data(const uint8_t* data, size_t length, int /*timeout_ms*/) {
  if (handle_ == nullptr) {
    return -2;
  }
  return functions_->write(handle_, data, length) == -1 ? -1 : 0;
}

int nuvra_hid_device::recv_data(uint8_t* buffer, size_t length, int timeout_ms) {
  if (handle_ == nullptr) {
    return -2;
  }
  const int result = functions_->read_timeout(handle_, buffer, length, timeout_ms);
  return result < 0 ? result : 0;
}

std::string nuvra_hid_device::topology() const {
  return handle_ != nullptr ? functions_->topology(handle_) : std::string();
}

hid_device* nuvra_hid_device::_open_hid_device(uint16_t vendor, uint16_t product) {
  return functions_->open(vendor, product, nullptr);
}

}  // namespace mirn
