// A hostile host: the virtual Mirn takes any writes under any fault plan and stays answerable.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "virtual/virtual_mirn.h"
#include "virtual/wire.h"

namespace {

void require(bool condition) {
  if (!condition) {
    std::abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace mirn;
  VirtualMirn mirn({.history_limit = 16});
  auto now = std::chrono::nanoseconds(1000);
  // A line of fault plan first, if it is one.
  const uint8_t* const end = std::find(data, data + size, uint8_t{'\n'});
  FaultPlan plan;
  std::string error;
  if (FaultPlan::parse({reinterpret_cast<const char*>(data), static_cast<size_t>(end - data)}, &plan, &error)) {
    mirn.setFaultPlan(plan);
    size -= static_cast<size_t>(end - data);
    data = end;
  }
  while (size != 0) {
    const size_t length = std::min<size_t>(data[0] * 5, size - 1);
    mirn.hostWrite({data + 1, length}, now);
    data += 1 + length;
    size -= 1 + length;
    now += std::chrono::milliseconds(1);
    auto last = std::chrono::nanoseconds(0);
    for (const VirtualReport& report : mirn.takeReports()) {
      require(report.due >= last);
      last = report.due;
    }
    if (!mirn.plugged()) {
      mirn.plug();
    }
    const VirtualInputState input = mirn.input();
    require(input.x >= 0 && input.x <= 32767 && input.y >= 0 && input.y <= 32767 && input.buttons < 8);
  }
  mirn.setFaultPlan({});
  const std::vector<uint8_t> request = buildWireFrame(9, 256, {});
  require(mirn.hostWrite(request, now) == VirtualWriteResult::kAccepted);
  require(!mirn.takeReports().empty());
  return 0;
}
