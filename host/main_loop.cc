#include "host/main_loop.h"

#include <glib.h>

#include <algorithm>
#include <atomic>

namespace mirn {
namespace {

std::atomic<bool> g_quit{false};

// A timeout source on the default context for a scope; it does nothing but wake the loop.
class Ticker {
 public:
  explicit Ticker(guint milliseconds) : source_(g_timeout_source_new(milliseconds)) {
    g_source_set_callback(
        source_, [](gpointer) -> gboolean { return G_SOURCE_CONTINUE; }, nullptr, nullptr);
    g_source_attach(source_, nullptr);
  }
  ~Ticker() {
    g_source_destroy(source_);
    g_source_unref(source_);
  }
  Ticker(const Ticker&) = delete;
  Ticker& operator=(const Ticker&) = delete;

 private:
  GSource* source_;
};

}  // namespace

bool runLoopUntil(const std::function<bool()>& done, std::chrono::milliseconds limit,
                  std::chrono::milliseconds look_again) {
  const auto end = std::chrono::steady_clock::now() + limit;
  const Ticker ticker(static_cast<guint>(std::min(look_again, limit).count()));
  while (!done()) {
    if (std::chrono::steady_clock::now() >= end) {
      return done();
    }
    g_main_context_iteration(nullptr, TRUE);
  }
  return true;
}

void runLoopFor(std::chrono::milliseconds time) {
  runLoopUntil([] { return false; }, time);
}

void drainLoop(int turns) {
  for (int i = 0; i < turns && g_main_context_iteration(nullptr, FALSE) != FALSE; ++i) {
  }
}

void runLoop() {
  while (!g_quit.exchange(false)) {
    g_main_context_iteration(nullptr, TRUE);
  }
}

void quitLoop() {
  g_quit = true;
  g_main_context_wakeup(nullptr);
}

}  // namespace mirn
