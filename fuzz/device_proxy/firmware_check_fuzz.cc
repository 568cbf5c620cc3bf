// A text that passes the check converts into the image that its records describe, read here in another way: every byte
// goes to its address, and the addresses are then read from the lowest to the highest without a hole.
#include <cstdlib>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "device/firmware_check.h"
#include "fuzz/device_proxy/plain_model.h"

namespace {

uint32_t number(std::string_view digits) {
  return static_cast<uint32_t>(std::strtoul(std::string(digits).c_str(), nullptr, 16));
}

// Of a text that passed: its records are sound.
std::map<uint32_t, uint8_t> memoryOf(std::string_view text) {
  std::map<uint32_t, uint8_t> memory;
  uint32_t base = 0;
  while (!text.empty()) {
    const size_t end = text.find('\n');
    const std::string_view line = text.substr(0, end);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    const uint32_t length = number(line.substr(1, 2));
    const uint32_t address = number(line.substr(3, 4));
    const uint32_t type = number(line.substr(7, 2));
    if (type == 1) break;
    if (type == 2) base = number(line.substr(9, 4)) << 4;
    if (type == 4) base = number(line.substr(9, 4)) << 16;
    for (uint32_t i = 0; type == 0 && i < length; ++i) {
      memory[base + address + i] = static_cast<uint8_t>(number(line.substr(9 + 2 * i, 2)));
    }
  }
  return memory;
}

// Texts that set both kinds of base: one of them 0, so that the sum is no question. The model keeps one base only.
bool usesBothBases(std::string_view text) {
  bool segment = false;
  bool linear = false;
  while (text.size() > 8) {
    segment = segment || text.substr(7, 2) == "02";
    linear = linear || text.substr(7, 2) == "04";
    const size_t end = text.find('\n');
    if (end == std::string_view::npos) break;
    text.remove_prefix(end + 1);
  }
  return segment && linear;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace mirn;
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  size_t records = 0;
  const FirmwareReport report = checkFirmwareText(text, [&records](const FirmwareRecord& record) {
    ++records;
    if (record.line != records) std::abort();
  });
  if (records != report.records) std::abort();
  if (report.exact != report.findings.empty()) std::abort();
  if (report.exact != report.firstReason().empty()) std::abort();
  if (!report.exact) return 0;

  const std::optional<std::vector<uint8_t>> image = plainModel(text);
  if (!image || image->size() != report.image_bytes) std::abort();
  if (usesBothBases(text)) return 0;
  const std::map<uint32_t, uint8_t> memory = memoryOf(text);
  if (memory.size() != image->size()) std::abort();
  uint32_t address = report.base_address;
  for (const uint8_t byte : *image) {
    const auto found = memory.find(address++);
    if (found == memory.end() || found->second != byte) std::abort();
  }
  return 0;
}
