// What this process holds, as the kernel counts it.
#pragma once

#include <chrono>
#include <filesystem>
#include <thread>

namespace mirn {

inline int openDescriptors() {
  int count = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) ++count;
  return count;
}

inline int runningThreads() {
  int count = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) ++count;
  return count;
}

// Detached threads end by themselves: waits until no more than `limit` are left. False after ten seconds.
inline bool threadsFallTo(int limit) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (runningThreads() > limit) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::yield();
  }
  return true;
}

}  // namespace mirn
