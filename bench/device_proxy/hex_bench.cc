// 1 MiB of image from HEX, file to file, as whole processes: start, read, convert, write, exit.
#include <benchmark/benchmark.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern char** environ;

namespace {

constexpr size_t kImageBytes = 1 << 20;
constexpr size_t kRecordBytes = 16;

std::string record(uint8_t type, uint16_t address, const uint8_t* data, size_t length) {
  std::string text = ":";
  unsigned sum = 0;
  const auto add = [&](unsigned byte) {
    text += "0123456789ABCDEF"[byte >> 4 & 15];
    text += "0123456789ABCDEF"[byte & 15];
    sum += byte;
  };
  add(static_cast<unsigned>(length));
  add(address >> 8);
  add(address & 0xFF);
  add(type);
  for (size_t i = 0; i < length; ++i) add(data[i]);
  add(-sum & 0xFF);
  return text + "\r\n";
}

// The files, for the life of the program.
struct Files {
  std::string folder;
  std::string hex;
  std::vector<uint8_t> image;

  Files() : image(kImageBytes) {
    std::string pattern = (std::filesystem::temp_directory_path() / "mirn-hex-bench-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) std::abort();
    folder = pattern;
    hex = folder + "/image.hex";
    uint32_t state = 1;
    for (uint8_t& byte : image) byte = static_cast<uint8_t>((state = state * 1664525 + 1013904223) >> 24);
    std::ofstream file(hex, std::ios::binary);
    for (size_t at = 0; at < image.size(); at += kRecordBytes) {
      if (at % 0x10000 == 0) {
        const uint8_t base[2] = {static_cast<uint8_t>(at >> 24), static_cast<uint8_t>(at >> 16)};
        file << record(4, 0, base, sizeof base);
      }
      file << record(0, static_cast<uint16_t>(at), &image[at], kRecordBytes);
    }
    file << record(1, 0, nullptr, 0);
  }
  ~Files() {
    std::error_code ignored;
    std::filesystem::remove_all(folder, ignored);
  }
};

const Files& files() {
  static const Files instance;
  return instance;
}

bool run(const std::vector<std::string>& command) {
  std::vector<char*> arguments;
  for (const std::string& word : command) arguments.push_back(const_cast<char*>(word.c_str()));
  arguments.push_back(nullptr);
  pid_t child = 0;
  int status = 0;
  return posix_spawn(&child, arguments[0], nullptr, nullptr, arguments.data(), environ) == 0 &&
         waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

bool isImage(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  const std::vector<char> bytes{std::istreambuf_iterator<char>(file), {}};
  return std::equal(bytes.begin(), bytes.end(), files().image.begin(), files().image.end(),
                    [](char a, uint8_t b) { return static_cast<uint8_t>(a) == b; });
}

// `out`: the image that the command writes.
void convert(benchmark::State& state, const std::string& out, const std::vector<std::string>& command) {
  for (auto _ : state) {
    unlink(out.c_str());
    const auto start = std::chrono::steady_clock::now();
    const bool good = run(command);
    state.SetIterationTime(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
    if (!good) {
      state.SkipWithError("the process failed");
      return;
    }
  }
  if (!isImage(out)) state.SkipWithError("the image differs");
}

void ours(benchmark::State& state) {
  const std::string out = files().folder + "/ours.bin";
  convert(state, out, {MIRN_HEX_TO_IMAGE, files().hex, out});
}
void objcopy(benchmark::State& state) {
  const std::string out = files().folder + "/objcopy.bin";
  convert(state, out, {MIRN_OBJCOPY, "-I", "ihex", "-O", "binary", files().hex, out});
}
void srecCat(benchmark::State& state) {
  const std::string out = files().folder + "/srec.bin";
  convert(state, out, {MIRN_SREC_CAT, files().hex, "-intel", "-o", out, "-binary"});
}

}  // namespace

BENCHMARK(ours)->Name("hex 1 MiB file to file/ours")->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(objcopy)->Name("hex 1 MiB file to file/peer:objcopy")->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(srecCat)->Name("hex 1 MiB file to file/peer:srec_cat")->UseManualTime()->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
