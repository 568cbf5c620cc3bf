// The firmware half: an image file to upgrade tasks.
#include <cstdlib>

#include "deps/pellum/logger/flogger.h"
#include "device/firmware_check.h"
#include "device/firmware_version.h"
#include "device/hard_km_proxy.h"
#include "device/hex_image.h"
#include "device/regular_file.h"

namespace mirn {
namespace {

constexpr char kRequest[] = "ReqUpgradeFirmware";
constexpr size_t kMostPathBytes = 1023;
// The whole image waits in the queue, which has no bound of its own: a file beyond this is no firmware.
constexpr uint64_t kMostQueuedBytes = uint64_t{256} << 20;

// The directory's text with the name right behind it: a TMPDIR without a "/" at its end gives a file beside the
// directory, and the fallback one in the root. That is meant; our own programs set a TMPDIR that ends in "/".
std::string temporaryImagePath() {
  const char* directory = std::getenv("TMPDIR");
  if (directory == nullptr) directory = "/tmp";
  flogger::GetInitance().write_log(kLogDebug, "[%s] tmpdir=%s", kRequest, directory);
  std::string path = std::string(directory) + "velkin_temp.bin";
  if (path.size() > kMostPathBytes) path.resize(kMostPathBytes);
  flogger::GetInitance().write_log(kLogDebug, "[%s] tmpdir=%s", kRequest, path.c_str());
  return path;
}

}  // namespace

int HardKMProxy::ReqUpgradeFirmwareHandShake() {
  if (isFirstFirmware(device_.version_text())) return 0;
  Submit(makeRef<new_firmware_handshake_task>(&device_));
  return 1;
}

int HardKMProxy::UpgradeFirmware(const wchar_t* /*path*/) {
  return 0;
}

int HardKMProxy::UpgradeFirmware(uint16_t id, uint16_t total, const uint8_t* data, uint16_t length) {
  CRefObj<i_vx_task> task = makeRef<upgrade_task>(&device_, id, total, data, length);
  FlushPendingMove();
  Submit(std::move(task));
  return 0;
}

int HardKMProxy::ReqUpgradeFirmware(const std::string& path) {
  flogger& log = flogger::GetInitance();
  if (path.empty()) {
    log.write_log(kLogError, "[%s] file Path is empty!", kRequest);
    return 0;
  }
  if (!isHexFirmwarePath(path)) return QueueImage(openForReading(path), path);

  const std::string image_path = temporaryImagePath();
  RegularFile image;
  if (ParseHexFile(path, image_path, &image) != 0) {
    log.write_log(kLogError, "[%s] hex to bin failed!", kRequest);
    return 0;
  }
  return QueueImage(image, image_path);
}

int HardKMProxy::QueueImage(const RegularFile& file, const std::string& path) {
  flogger& log = flogger::GetInitance();
  if (!file.fd.valid() || file.size > kMostQueuedBytes) {
    log.write_log(kLogError, "[%s] open file failed! path=%s", kRequest, path.c_str());
    return 0;
  }
  // As 16 bits, as the wire carries it: an image beyond 65,535 chunks wraps the total and the chunk numbers.
  const auto total = static_cast<uint16_t>(file.size / kFirmwareChunkBytes + (file.size % kFirmwareChunkBytes != 0));

  int queued = 0;
  int result = 1;
  while (static_cast<uint64_t>(queued) * kFirmwareChunkBytes <= kMostQueuedBytes) {
    uint8_t chunk[kFirmwareChunkBytes] = {};
    const int64_t count = readFully(file.fd.get(), chunk, sizeof chunk);
    if (count < 0) result = 0;
    if (count <= 0) break;
    const int answer = UpgradeFirmware(static_cast<uint16_t>(queued), total, chunk, static_cast<uint16_t>(count));
    if (answer != 0) {
      log.write_log(kLogError, "[%s] ReqUpgradeFirmware fail! nRet= %d", kRequest, answer);
      result = 0;
      break;
    }
    ++queued;
  }
  log.write_log(kLogDebug, "[%s] Upgrade success id=%d", kRequest, queued);
  return result;
}

int HardKMProxy::ParseHexFile(const std::string& source_path, const std::string& des_path, RegularFile* image) {
  flogger& log = flogger::GetInitance();
  switch (convertHexFile(source_path, des_path, image)) {
    case HexFileResult::kConverted:
      return 0;
    case HexFileResult::kSourceUnreadable:
      log.write_log(kLogError, "Error Fail To Read, source_path=%s", source_path.c_str());
      return -1;
    case HexFileResult::kDestinationRefused:
      log.write_log(kLogError, "open file error, des_path=%s", des_path.c_str());
      return -1;
    case HexFileResult::kBadText:
    case HexFileResult::kWriteFailed:
      log.write_log(kLogError, "hex file error! des_path=%s", des_path.c_str());
      return -1;
  }
  return -1;
}

}  // namespace mirn
