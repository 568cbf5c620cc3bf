#include "platform/hid_functions.h"

#include <atomic>

namespace mirn {
namespace {

std::atomic<const HidFunctions*> g_functions{nullptr};

}  // namespace

const HidFunctions& hidFunctions() {
  const HidFunctions* const installed = g_functions.load(std::memory_order_acquire);
  return installed != nullptr ? *installed : defaultHidFunctions();
}

void setHidFunctions(const HidFunctions* functions) {
  g_functions.store(functions, std::memory_order_release);
}

}  // namespace mirn
