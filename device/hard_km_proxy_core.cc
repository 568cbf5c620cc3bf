// Lifetime, queue, sending thread, the thinning of moves, and the operations that pass the queue by.
#include <thread>
#include <utility>

#include "device/firmware_version.h"
#include "device/hard_km_proxy.h"

namespace mirn {
namespace {

// Moves held back for one that is sent.
constexpr uint8_t kHeldRelativeMoves = 1;
constexpr uint8_t kHeldAbsoluteMoves = 6;
// With SetMirnMouseMove and the first firmware: the number of the move that is sent.
constexpr uint8_t kSentMirnMove = 2;

}  // namespace

// ---- Sending thread ----

HardKMProxy::SendThread::~SendThread() {
  SendThread::Stop();
}

int HardKMProxy::SendThread::Start() {
  proxy_->device_.cut_moves(false);
  queue_.open(kQueueArgument);
  return Run_(false);
}

int HardKMProxy::SendThread::Stop() {
  return SendThread::Stop(-1);
}

int HardKMProxy::SendThread::Stop(int milliseconds) {
  proxy_->device_.cut_moves(true);
  queue_.close();
  return CBaseThread::Stop(milliseconds);
}

void HardKMProxy::SendThread::AddKMTask(CRefObj<i_vx_task> task) {
  queue_.push(std::move(task));
}

int HardKMProxy::SendThread::ThreadLoop() {
  CRefObj<i_vx_task> task;
  if (queue_.pop_timedwait(task, kWaitForever) != sem_queue<CRefObj<i_vx_task>>::kPopped) {
    // Closed, which is told at once: the loop turns until it sees the stop request that follows the closing. Let the
    // stopping thread run, should it share this processor.
    std::this_thread::yield();
    return 1;
  }
  const int result = task->done();
  if (proxy_->listener_ != nullptr) Report(*task, result);
  return 1;
}

void HardKMProxy::SendThread::Report(i_vx_task& task, int result) {
  IKeyMouseListener& listener = *proxy_->listener_;
  switch (task.kind()) {
    case kMouseTask:
      listener.OnSendMouseResult(result);
      break;
    case kKeyboardTask:
      listener.OnSendKeyboardResult(result);
      break;
    case kUpgradeTask: {
      const auto& chunk = static_cast<const upgrade_task&>(task);
      listener.OnSendUpgradeResult(result, chunk.id(), chunk.total());
      break;
    }
    case kNewFirmwareHandshakeTask:
      listener.OnSendFirmwareHandSharkeResult(result);
      break;
    default:
      break;
  }
}

// ---- Lifetime ----

HardKMProxy::HardKMProxy(IKeyMouseListener* listener, uint16_t vendor, uint16_t product)
    : KeyMouseProxy(listener), device_(vendor, product), send_thread_(this) {
  send_thread_.Start();
}

HardKMProxy::~HardKMProxy() {
  modifiers_ = 0;
  slots_.fill(0);
  sendKeyboard(keyboard_args_type{});
  HardKMProxy::MouseLButtonUp(0, 0);
  HardKMProxy::MouseRButtonUp(0, 0);
  HardKMProxy::MouseMButtonUp(0, 0);
  send_thread_.Stop();
}

int HardKMProxy::Init(const std::vector<tagRECT>& monitors) {
  initKeyMap();
  return initMousePos(monitors);
}

// ---- Submission ----

void HardKMProxy::Submit(CRefObj<i_vx_task> task) {
  send_thread_.AddKMTask(std::move(task));
}

void HardKMProxy::FlushPendingMove() {
  if (move_counter_ == 0) return;
  move_counter_ = 0;
  Submit(std::move(pending_move_));
}

void HardKMProxy::SubmitMove(CRefObj<i_vx_task> move) {
  move_counter_ = 0;
  pending_move_.reset();
  Submit(std::move(move));
}

int HardKMProxy::sendMouse(const mouse_args_type& args) {
  CRefObj<i_vx_task> task = makeRef<mouse_task>(&device_, args, Relative(), mirn_mouse_move_);
  if (args.type != kMouseMove) {
    FlushPendingMove();
    Submit(std::move(task));
  } else if (MoveIsDue()) {
    SubmitMove(std::move(task));
  } else {
    pending_move_ = std::move(task);
  }
  return 0;
}

// Counts the move.
bool HardKMProxy::MoveIsDue() {
  if (mirn_mouse_move_) {
    return !isFirstFirmware(device_.version_text()) || ++move_counter_ >= kSentMirnMove;
  }
  return ++move_counter_ > (Relative() ? kHeldRelativeMoves : kHeldAbsoluteMoves);
}

// ---- Direct operations ----

int HardKMProxy::GetDevInfo(_get_dev_info_reply& reply, std::string& version) {
  return device_.get_dev_info(&reply, &version);
}

int HardKMProxy::SendSetDevInfo(const std::string& name) {
  return device_.send_set_dev_info(name);
}

int HardKMProxy::GetLedStatus() {
  return device_.get_led_status();
}

int HardKMProxy::SetLedStatus(uint8_t status) {
  return device_.set_led_status(status);
}

int HardKMProxy::GetVXInfo(vx_info_type& info) {
  info.version = device_.version_text();
  info.detail = device_.detail_text();
  return device_.get_vx_led_status(&info.led);
}

// The device's answer is not looked at.
int HardKMProxy::SetVXLedStatus(const vx_led_status_def& led) {
  device_.set_vx_led_status(led);
  return 0;
}

std::string HardKMProxy::DeviceTopology() {
  return device_.topology();
}

}  // namespace mirn
