// Any text: what is read can be written and read again alike.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "virtual/fault_plan.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using mirn::FaultPlan;
  FaultPlan plan;
  std::string error;
  if (!FaultPlan::parse({reinterpret_cast<const char*>(data), size}, &plan, &error)) {
    if (error.empty() || !plan.empty()) {
      std::abort();
    }
    return 0;
  }
  FaultPlan again;
  if (!FaultPlan::parse(plan.text(), &again, &error) || again.text() != plan.text()) {
    std::abort();
  }
  plan.at(3, 3, 1);
  return 0;
}
