// The main queue on GLib: one source on the default main context, woken from any thread.

#include <glib.h>

#include <utility>

#include "deps/pellum/thread_annotations.h"
#include "platform/main_queue.h"
#include "platform/ring_queue.h"

namespace mirn {
namespace {

class GlibMainQueue : public MainQueue {
 public:
  GlibMainQueue();

  bool post(std::shared_ptr<QueueTask> task) override MIRN_EXCLUDES(lock_);
  bool isCurrent() const override { return g_main_context_is_owner(g_main_context_default()) != FALSE; }

 private:
  struct Source {
    GSource base;
    GlibMainQueue* queue;
  };

  static gboolean dispatch(GSource* source, GSourceFunc callback, gpointer data);
  void runWaiting() MIRN_EXCLUDES(lock_);

  Mutex lock_;
  RingQueue<std::shared_ptr<QueueTask>> tasks_ MIRN_GUARDED_BY(lock_);
  GSource* source_ = nullptr;  // lives as long as the process, as the context does
};

// GLib keeps a pointer to it.
GSourceFuncs g_sourceFuncs = {nullptr, nullptr, nullptr, nullptr, nullptr, nullptr};

GlibMainQueue::GlibMainQueue() {
  g_sourceFuncs.dispatch = &GlibMainQueue::dispatch;
  source_ = g_source_new(&g_sourceFuncs, sizeof(Source));
  reinterpret_cast<Source*>(source_)->queue = this;
  g_source_set_name(source_, "mirn main queue");
  g_source_set_can_recurse(source_, TRUE);  // a task may run the loop itself (a modal dialog)
  g_source_attach(source_, g_main_context_default());
}

bool GlibMainQueue::post(std::shared_ptr<QueueTask> task) {
  {
    MutexGuard guard(lock_);
    tasks_.push(std::move(task));
  }
  g_source_set_ready_time(source_, 0);  // wakes the context, from any thread
  return true;                          // whether a loop runs is the program's matter
}

gboolean GlibMainQueue::dispatch(GSource* source, GSourceFunc /*callback*/, gpointer /*data*/) {
  // Before the tasks are looked at: a post from now on makes the source ready again.
  g_source_set_ready_time(source, -1);
  reinterpret_cast<Source*>(source)->queue->runWaiting();
  return G_SOURCE_CONTINUE;
}

void GlibMainQueue::runWaiting() {
  // What is posted meanwhile waits for the next turn, so that other sources get theirs.
  size_t turn = 0;
  {
    MutexGuard guard(lock_);
    turn = tasks_.size();
  }
  for (; turn > 0; --turn) {
    std::shared_ptr<QueueTask> task;
    bool more = false;
    {
      MutexGuard guard(lock_);
      if (tasks_.empty()) {
        return;  // a nested loop took them
      }
      task = tasks_.pop();
      more = !tasks_.empty();
    }
    if (more) {
      g_source_set_ready_time(source_, 0);  // for a loop that the task may run itself
    }
    task->run();
  }
}

}  // namespace

MainQueue& defaultMainQueue() {
  static GlibMainQueue* const queue = new GlibMainQueue;
  return *queue;
}

}  // namespace mirn
