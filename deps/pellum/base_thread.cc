#include "deps/pellum/base_thread.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>

#include "deps/pellum/base_assert.h"
#include "deps/pellum/object_monitor.h"

namespace mirn {
namespace {

constexpr const char* kWhere = "BaseThread";
constexpr size_t kSystemNameBytes = 15;  // pthread_setname_np's limit without the NUL

uint32_t systemThreadId() {
  return static_cast<uint32_t>(::syscall(SYS_gettid));
}

}  // namespace

ADD_TO_MONITORING_LIST(CBaseThread);

// What a new thread is given. It keeps the presence alive beyond the object.
struct CBaseThread::StartArgument {
  CBaseThread* thread;
  std::shared_ptr<Presence> presence;
  std::string name;
};

CBaseThread::CBaseThread() {
  OBJECT_MONITOR<CBaseThread>::Created();
}

CBaseThread::~CBaseThread() {
  bool joinable = false;
  pthread_t handle{};
  {
    MutexGuard lock(control_);
    joinable = joinable_;
    handle = handle_;
  }
  if (joinable && isSelf()) {
    pthread_detach(handle);  // the object deletes itself from its own thread
  } else if (joinable) {
    baseAssert(ended_, "stopped before destruction", kWhere);
    join(/*request_stop=*/true);
  } else if (presence_->inside && !isSelf()) {
    baseAssert(false, "a run-once thread has left before destruction", kWhere);
    stop_requested_ = true;
    presence_->inside.wait(true);
  }
  OBJECT_MONITOR<CBaseThread>::Deleted();
}

int CBaseThread::Run() {
  return Run_(false);
}

int CBaseThread::Run_(bool run_once) {
  if (running_) {
    return 1;
  }
  const std::shared_ptr<Presence> presence = presence_;
  if (!start(run_once)) {
    return 0;
  }
  // A run-once object may delete itself as soon as this is out.
  presence->started = true;
  presence->started.notify_all();
  return 1;
}

bool CBaseThread::start(bool run_once) {
  MutexGuard lock(control_);
  if (running_) {
    return true;
  }
  auto argument = std::make_unique<StartArgument>(StartArgument{this, presence_, systemName()});
  run_once_ = run_once;
  running_ = true;
  stop_requested_ = false;
  ended_ = false;
  owner_id_ = systemThreadId();
  thread_id_ = 0;  // the old number may be another thread's by now
  presence_->inside = true;
  presence_->started = false;
  if (pthread_create(&handle_, nullptr, &CBaseThread::ThreadFunc, argument.get()) != 0) {
    presence_->inside = false;
    running_ = false;
    handle_ = {};
    return false;
  }
  static_cast<void>(argument.release());  // the thread's now
  joinable_ = !run_once;
  return true;
}

std::string CBaseThread::systemName() {
  MutexGuard lock(name_mutex_);
  return name_.substr(0, kSystemNameBytes);
}

void* CBaseThread::ThreadFunc(void* argument) {
  const std::unique_ptr<StartArgument> start(static_cast<StartArgument*>(argument));
  start->presence->started.wait(false);
  if (!start->name.empty()) {
    pthread_setname_np(pthread_self(), start->name.c_str());
  }
  start->thread->threadBody();
  // The object may be gone from here on.
  start->presence->inside = false;
  start->presence->inside.notify_all();
  return nullptr;
}

void CBaseThread::threadBody() {
  thread_id_ = systemThreadId();
  const bool run_once = run_once_;
  if (run_once) {
    pthread_detach(pthread_self());
  }
  OnBegin();
  while (!stop_requested_) {
    if (ThreadLoop() == 0 || run_once) {
      break;
    }
  }
  ended_ = true;
  OnExit();
}

bool CBaseThread::HasLeft() const {
  return !presence_->inside;
}

int CBaseThread::Stop() {
  return Stop(-1);
}

int CBaseThread::Stop(int milliseconds) {
  if (running_ && WaitForStop(milliseconds) == 1) {
    MutexGuard lock(control_);
    if (!joinable_ && !run_once_) {  // else somebody has started it anew already
      handle_ = {};
      running_ = false;
      stop_requested_ = false;
      ended_ = false;
      run_once_ = false;
    }
  }
  return 1;
}

// A number of a thread that has left may be another thread's by now.
bool CBaseThread::isSelf() const {
  return presence_->inside && thread_id_ == systemThreadId();
}

bool CBaseThread::mayBeWaitedFor() const {
  return baseAssert(!run_once_, "run_once == false", kWhere);
}

int CBaseThread::WaitForStop(int /*milliseconds*/) {
  if (!running_) {
    return 1;
  }
  if (!mayBeWaitedFor()) {
    return 0;
  }
  stop_requested_ = true;
  return waitThreadEnd(/*request_stop=*/true);
}

int CBaseThread::WaitThreadEnd(int /*milliseconds*/) {
  return waitThreadEnd(/*request_stop=*/false);
}

int CBaseThread::waitThreadEnd(bool request_stop) {
  if (!running_) {
    return 1;
  }
  if (!mayBeWaitedFor() || !baseAssert(!isSelf(), "waited for from another thread", kWhere)) {
    return 0;
  }
  join(request_stop);
  return 1;
}

// A second caller waits for the first one's join, then finds nothing left to join.
void CBaseThread::join(bool request_stop) {
  MutexGuard lock(control_);
  if (joinable_) {
    // A run that began since the request was made has cleared it, and nobody else would make it end.
    if (request_stop) {
      stop_requested_ = true;
    }
    pthread_join(handle_, nullptr);
    joinable_ = false;
  }
}

void CBaseThread::SetThreadName(const char* name) {
  if (name) {
    MutexGuard lock(name_mutex_);
    name_ = name;
  }
}

int CBaseThread::WaitForTimeOut(int milliseconds) {
  if (running_ && milliseconds > 0) {
    timespec rest{milliseconds / 1000, (milliseconds % 1000) * 1000000L};
    while (nanosleep(&rest, &rest) != 0 && errno == EINTR) {
    }
  }
  return 1;
}

}  // namespace mirn
