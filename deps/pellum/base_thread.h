// A thread with a start / loop / stop protocol.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "deps/pellum/thread_annotations.h"

namespace mirn {

// Run, Stop and the waits may be called from any thread, the flags may be read from any thread. OnBegin, ThreadLoop and
// OnExit run on the thread itself.
//
// Whoever derives from it calls Stop() in the destructor of the most derived class (or before): the loop must not run
// while its object is being taken apart. A run-once thread can't be stopped or joined; its object lives until
// HasLeft(), or deletes itself as the last thing in OnExit().
class CBaseThread {
 public:
  CBaseThread();
  CBaseThread(const CBaseThread&) = delete;
  CBaseThread& operator=(const CBaseThread&) = delete;
  virtual ~CBaseThread();

  // Run_(false).
  virtual int Run();
  // Requests the stop, joins and clears the flags, so that the object can run again. Returns 1, at once when nothing
  // runs. Neither form has a time limit.
  virtual int Stop();
  virtual int Stop(int milliseconds);
  // Starts the thread: joinable, or with run_once detached and with a single turn of the loop. Returns 1, also when it
  // is running already (then nothing is started), 0 when the thread can't be created.
  virtual int Run_(bool run_once);

 protected:
  // One turn. Non-zero to be called again.
  virtual int ThreadLoop() = 0;

 public:
  // Requests the stop and joins; the milliseconds are no limit. Returns 1, at once when nothing runs. A run-once thread
  // and the thread itself can't be waited for: that is reported, returns 0 and changes nothing (but from the thread
  // itself the stop is requested all the same).
  virtual int WaitForStop(int milliseconds);

 protected:
  virtual void OnExit() {}
  virtual void OnBegin() {}

 public:
  // WaitForStop without the request.
  int WaitThreadEnd(int milliseconds);
  // Running and not ended.
  bool IsRunning() const { return running_ && !ended_; }
  bool StopRequested() const { return stop_requested_; }
  // True when no thread touches the object any more.
  bool HasLeft() const;
  // Null is ignored. The system shows the first 15 bytes of it, from the next start on.
  void SetThreadName(const char* name);
  // Sleeps on the calling thread, if the object runs. Returns 1.
  int WaitForTimeOut(int milliseconds);
  // System ids: who started the thread, 0 before the first start, and the thread, 0 until it begins.
  uint32_t OwnerThreadId() const { return owner_id_; }
  uint32_t ThreadId() const { return thread_id_; }

 private:
  // What the thread touches after its object may be gone.
  struct Presence {
    std::atomic<bool> inside{false};
    std::atomic<bool> started{false};  // Run_ has let go of the object
  };

  struct StartArgument;

  static void* ThreadFunc(void* argument);
  bool start(bool run_once);
  std::string systemName();
  void threadBody();
  bool isSelf() const;
  bool mayBeWaitedFor() const;
  int waitThreadEnd(bool request_stop);
  void join(bool request_stop);

  Mutex control_;  // starting, joining and clearing exclude each other; never taken on the thread itself
  pthread_t handle_ MIRN_GUARDED_BY(control_) = {};
  bool joinable_ MIRN_GUARDED_BY(control_) = false;
  Mutex name_mutex_;
  std::string name_ MIRN_GUARDED_BY(name_mutex_);
  std::atomic<bool> running_{false};
  std::atomic<bool> stop_requested_{false};
  std::atomic<bool> ended_{false};
  std::atomic<bool> run_once_{false};
  std::atomic<uint32_t> owner_id_{0};
  std::atomic<uint32_t> thread_id_{0};
  std::shared_ptr<Presence> presence_ = std::make_shared<Presence>();
};

}  // namespace mirn
