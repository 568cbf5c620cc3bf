// The device half of the manager: presence, the key and pointer proxy, device information, firmware.
#include <array>
#include <atomic>
#include <cstring>
#include <exception>
#include <utility>

#include "deps/pellum/logger/flogger.h"
#include "device/hard_km_proxy.h"
#include "platform/hid_functions.h"
#include "platform/mirn_identity.h"
#include "platform/system_log.h"
#include "plugin/link_counters.h"
#include "plugin/mirn_global.h"
#include "plugin/mirn_manager.h"
#include "plugin/standard_output.h"
#include "plugin/utf8.h"
#include "usb/usb_scan.h"

namespace mirn {
namespace {

// What information answers when nothing can be done.
constexpr int32_t kNoProxy = -1;
constexpr uint8_t kFlagSet = 1;

// A proxy that was alive when its manager went, and the listener it reports to: kept for ever, because its sending
// thread may be in an exchange. A root for leak checkers, too.
struct LeftBehind {
  HardKMProxy* proxy;
  MyCppListenerWrapper* listener;
  LeftBehind* next;
};
constinit LeftBehind* g_left_behind = nullptr;

// A text of the device: `field` up to its first NUL; "" where it is not valid UTF-8, which no application could show.
std::string deviceText(std::string_view field) {
  const std::string text(field.substr(0, field.find('\0')));
  return isValidUtf8(text) ? text : std::string();
}

}  // namespace

std::unique_ptr<MirnManager> MirnManager::init() {
  return std::unique_ptr<MirnManager>(new MirnManager());
}

MirnManager::MirnManager() : pWrapper(std::make_unique<MyCppListenerWrapper>()) {
  hidFunctions().init();
}

MirnManager::~MirnManager() {
  close();
  // NOLINTNEXTLINE(bugprone-unhandled-exception-at-new): out of memory may end the program here
  g_left_behind = new LeftBehind{kmproxy_.release(), pWrapper.release(), g_left_behind};
}

bool MirnManager::initKmProxy() {
  releaseProxy();
  return initkmproxy();
}

bool MirnManager::initkmproxy() {
  releaseProxy();
  try {
    auto proxy = std::make_unique<HardKMProxy>(pWrapper.get(), g_vid, g_pid);
    proxy->initKeyMap();
    _get_dev_info_reply reply{};
    std::string version;
    if (proxy->GetDevInfo(reply, version) == -1) {
      printStandardOutput("get dev info failed\n");
      return false;  // destroys the proxy: two command layers never live at once
    }
    kmproxy_ = std::move(proxy);
    return true;
  } catch (const std::exception& failure) {
    printStandardOutput("create HARDVMProxy failed, error: %s\n", failure.what());
    return false;
  }
}

void MirnManager::releaseProxy() {
  kmproxy_.reset();
}

bool MirnManager::getDeviceExist() {
  if (g_bInitUSBListener) {
    g_bDeviceExist = uSBMonitor_.GetDeviceExist();
    return g_bDeviceExist;
  }
  g_bDeviceExist = checkDeviceExist();
  uSBMonitor_.SetDeviceExist(g_bDeviceExist);
  g_bInitUSBListener = uSBMonitor_.StartMonitoring();
  flogger::GetInitance().write_log(kLogInfo, "[FlutterMirnPluginCApi] [getDeviceExist] InitUSBListener %s!",
                                   g_bInitUSBListener ? "success" : "failed");
  return g_bDeviceExist;
}

bool MirnManager::checkDeviceExist() {
  return UsbDeviceAttached();
}

void MirnManager::setLedStatus(int32_t status) {
  if (kmproxy_ != nullptr) kmproxy_->SetLedStatus(static_cast<uint8_t>(status));
}

std::vector<std::string> MirnManager::getMirnDevInfo() {
  std::vector<std::string> info;
  if (kmproxy_ == nullptr) initKmProxy();
  if (kmproxy_ == nullptr) return info;
  _get_dev_info_reply reply{};
  std::string version;
  try {
    if (kmproxy_->GetDevInfo(reply, version) == -1) {
      printStandardOutput("get dev info failed 2\n");
      return info;
    }
  } catch (const std::exception& failure) {
    systemLog("GetDevInfo exception: %s", failure.what());
    return info;
  } catch (...) {
    systemLog("GetDevInfo unknown exception");
    return info;
  }
  info.push_back(deviceText({reply.info_text, kInfoTextBytes}));
  info.push_back(deviceText({reply.id_text, kIdTextBytes}));
  info.emplace_back(reply.flag == kFlagSet ? "1" : "0");
  info.push_back(deviceText(version));
  return info;
}

int32_t MirnManager::setMirnDevInfo(const std::string& name) {
  return kmproxy_ != nullptr ? kmproxy_->SendSetDevInfo(name) : kNoProxy;
}

void MirnManager::keyDown(int32_t key) {
  if (kmproxy_ != nullptr) kmproxy_->KeyBoardDown(0, key);
}

void MirnManager::keyUp(int32_t key) {
  if (kmproxy_ != nullptr) kmproxy_->KeyBoardUp(0, key);
}

void MirnManager::mouseMove(int32_t x, int32_t y) {
  if (kmproxy_ != nullptr) kmproxy_->MouseMove(x, y, false);
}

void MirnManager::mouseEventButtons(std::string_view type, int32_t x, int32_t y) {
  struct Word {
    std::string_view type;
    int (HardKMProxy::*operation)(int x, int y);
  };
  static constexpr std::array<Word, 6> kWords = {{
      {"lbdown", &HardKMProxy::MouseLButtonDown},
      {"lbup", &HardKMProxy::MouseLButtonUp},
      {"rbdown", &HardKMProxy::MouseRButtonDown},
      {"rbup", &HardKMProxy::MouseRButtonUp},
      {"mbdown", &HardKMProxy::MouseMButtonDown},
      {"mbup", &HardKMProxy::MouseMButtonUp},
  }};
  if (kmproxy_ == nullptr) return;
  for (const Word& word : kWords) {
    if (word.type == type) ((*kmproxy_).*word.operation)(x, y);
  }
}

void MirnManager::mouseWheel(int32_t x, int32_t y, int32_t delta) {
  if (kmproxy_ == nullptr) return;
  if (delta < 1) {
    kmproxy_->MouseWheelUp(x, y, delta);
  } else {
    kmproxy_->MouseWheelDown(x, y, delta);
  }
}

int32_t MirnManager::reqUpgradeFirmware(const std::string& path) {
  if (kmproxy_ == nullptr) return kUpgradeImpossible;
  kmproxy_->ReqUpgradeFirmwareHandShake();
  // Nobody changes the picture's format while the image goes out. No capture device: nothing to lock.
  const std::shared_ptr<CaptureDevice> locked = captureDevice_;
  if (locked != nullptr && !locked->lockForConfiguration()) return kUpgradeImpossible;
  int32_t status = 0;
  {
    const ConfigurationUnlock unlock(locked.get());
    status = kmproxy_->ReqUpgradeFirmware(path);
  }
  printStandardOutput("reqUpgradeFirmware send upgrade data finished, bRet=%d\n", status);
  return status;
}

void MirnManager::setProcess(int32_t current, int32_t total) {
  curProgressNum.store(current);
  totalProgressNum.store(total);
}

std::vector<int32_t> MirnManager::getUpgradeProgress() {
  if (kmproxy_ == nullptr) return {};
  return {curProgressNum.load(), totalProgressNum.load()};
}

void MyCppListenerWrapper::OnUpgradeStep(uint16_t /*id*/, uint16_t /*total*/) {}

void MyCppListenerWrapper::OnSendMouseResult(int result) {
  linkCounters().mouse.count(result);
}

void MyCppListenerWrapper::OnSendKeyboardResult(int result) {
  linkCounters().keyboard.count(result);
}

void MyCppListenerWrapper::OnSendUpgradeResult(int err_no, uint16_t cur_id, uint16_t total) {
  linkCounters().firmware.count(err_no);
  printStandardOutput("mirn upgrade progress, err_no=%d, cur_id=%d, total=%d\r\n", err_no, cur_id, total);
  if (err_no == 0) reportProgress(cur_id, total);
}

void MyCppListenerWrapper::OnSendFirmwareHandSharkeResult(int /*result*/) {}

}  // namespace mirn
