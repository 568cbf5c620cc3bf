#pragma once

// The platform main thread's queue: channel commands and capture frames are serialised on it.

#include "platform/task_queue.h"

namespace mirn {

/// Tasks run in posting order, one at a time, on the thread that runs the main loop. Nothing runs while no loop runs.
class MainQueue : public TaskQueue {
 public:
  using TaskQueue::post;

  /// True on the thread that is running the main loop at this moment.
  virtual bool isCurrent() const = 0;
};

/// The queue in use. Thread-safe.
MainQueue& mainQueue();
/// Puts another queue in its place, for tests; nullptr = the default again. Call it while nothing is posted.
void setMainQueue(MainQueue* queue);

/// The platform's own queue (GLib's default main context on Linux), bound at link time.
MainQueue& defaultMainQueue();

}  // namespace mirn
