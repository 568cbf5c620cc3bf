// What this process holds, as the kernel counts it.
#pragma once

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

namespace mirn {

inline int openDescriptors() {
  int count = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) ++count;
  return count;
}

// Without GLib's own workers: a library that is used here may wake one up, and it stays for 15 s after its last task.
inline int runningThreads() {
  // A sanitizer's own thread comes with the first thread of the process: let it come before anything is counted.
  static const bool first_thread_was_there = [] {
    std::thread([] {}).join();
    return true;
  }();
  static_cast<void>(first_thread_was_there);
  int count = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) {
    std::string name;
    std::getline(std::ifstream(entry.path() / "comm"), name);
    if (!name.starts_with("pool-") && name != "gmain") ++count;
  }
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

// What a detached thread holds goes with it: waits until no more than `limit` descriptors are open. False after ten
// seconds.
inline bool descriptorsFallTo(int limit) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (openDescriptors() > limit) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::yield();
  }
  return true;
}

}  // namespace mirn
