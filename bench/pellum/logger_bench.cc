// Log lines into a file, every line handed to the kernel: ours against spdlog's basic file sink flushing each line. One
// iteration is a batch from every thread; the clock stops when all callers have returned, and then all lines are in the
// file (counted after each batch, before the file is closed).
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "deps/pellum/logger/filelog.h"

namespace {

constexpr int kLinesPerThread = 20000;

std::string benchFolder() {
  // In memory where possible: what a disk costs is not what is measured.
  const char* base = std::getenv("BENCH_FOLDER");
  std::string folder = std::string(base ? base : std::filesystem::is_directory("/dev/shm") ? "/dev/shm" : "/tmp");
  folder += "/mirn-bench-log-XXXXXX";
  return ::mkdtemp(folder.data()) ? folder : std::string(".");
}

int64_t linesIn(const std::string& path) {
  std::ifstream file(path);
  return std::count(std::istreambuf_iterator<char>(file), {}, '\n');
}

// Runs `lines` on each thread, all starting together; returns the seconds until the last has returned.
double timeBatch(int threads, const std::function<void(int thread)>& lines) {
  std::atomic<int> waiting{0};
  std::atomic<bool> go{false};
  std::vector<std::thread> pool;
  pool.reserve(static_cast<size_t>(threads));
  for (int t = 0; t < threads; ++t) {
    pool.emplace_back([&, t] {
      ++waiting;
      go.wait(false);
      lines(t);
    });
  }
  while (waiting != threads) {
    std::this_thread::yield();
  }
  const auto start = std::chrono::steady_clock::now();
  go = true;
  go.notify_all();
  for (std::thread& thread : pool) {
    thread.join();
  }
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// A fresh file for each batch, created and removed outside the measured time.
template <typename Open, typename Log, typename Close>
void measure(benchmark::State& state, int threads, const std::string& path, Open open, Log log, Close close) {
  for (auto _ : state) {
    open();
    state.SetIterationTime(timeBatch(threads, log));
    const int64_t written = linesIn(path);  // before closing, which writes what is left
    close();
    if (written != int64_t{threads} * kLinesPerThread) {
      state.SkipWithError("lines are missing");
      break;
    }
    std::filesystem::remove(path);
  }
  state.counters["ns/line"] =
      benchmark::Counter(static_cast<double>(threads) * kLinesPerThread,
                         benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
  std::filesystem::remove_all(std::filesystem::path(path).parent_path());
}

void ours(benchmark::State& state, int threads) {
  const std::string folder = benchFolder();
  mirn::filelog logger;
  logger.Path(folder.c_str(), 0);
  logger.MaxSize(1UL << 40);
  measure(
      state, threads, folder + "/bench.log", [&] { logger.open("bench", mirn::filelog::fixed_size, false); },
      [&](int thread) {
        for (int i = 0; i < kLinesPerThread; ++i) {
          logger.write_log(1, "[%s] report %d of %d went out", "send_keyboard", i, thread);
        }
      },
      [&] { logger.close(); });
}

void peer(benchmark::State& state, int threads) {
  const std::string folder = benchFolder();
  const std::string path = folder + "/bench.log";
  std::shared_ptr<spdlog::logger> logger;
  measure(
      state, threads, path,
      [&] {
        logger = std::make_shared<spdlog::logger>("bench", std::make_shared<spdlog::sinks::basic_file_sink_mt>(path));
        logger->set_pattern("[%t]\t%Y-%m-%d %H:%M:%S.%e\t- Info  -\t%v");
        logger->flush_on(spdlog::level::trace);
      },
      [&](int thread) {
        for (int i = 0; i < kLinesPerThread; ++i) {
          logger->info("[{}] report {} of {} went out", "send_keyboard", i, thread);
        }
      },
      [&] { logger.reset(); });
}

// What the kernel alone takes for one line at a time: no logger that hands over every line can be faster than this on
// one thread.
void bareWrite(benchmark::State& state) {
  const std::string folder = benchFolder();
  const std::string path = folder + "/bench.log";
  const std::string line = "[12345]\t2026-11-15 23:57:01.123\t- Info  -\t[send_keyboard] report 12345 of 0 went out\n";
  int file = -1;
  measure(
      state, 1, path, [&] { file = ::open(path.c_str(), O_CREAT | O_TRUNC | O_RDWR | O_CLOEXEC, 0600); },
      [&](int) {
        for (int i = 0; i < kLinesPerThread; ++i) {
          benchmark::DoNotOptimize(::write(file, line.data(), line.size()));
        }
      },
      [&] { ::close(file); });
}

}  // namespace

BENCHMARK(bareWrite)->Name("write_log 1 thread/peer:bare write(2)")->UseManualTime();
BENCHMARK_CAPTURE(ours, 1_thread, 1)->Name("write_log 1 thread/ours")->UseManualTime();
BENCHMARK_CAPTURE(peer, 1_thread, 1)->Name("write_log 1 thread/peer:spdlog")->UseManualTime();
BENCHMARK_CAPTURE(ours, 4_threads, 4)->Name("write_log 4 threads/ours")->UseManualTime();
BENCHMARK_CAPTURE(peer, 4_threads, 4)->Name("write_log 4 threads/peer:spdlog")->UseManualTime();

BENCHMARK_MAIN();
