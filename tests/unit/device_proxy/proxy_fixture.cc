#include "tests/unit/device_proxy/proxy_fixture.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <ostream>
#include <sstream>

#include "deps/pellum/logger/flogger.h"

namespace mirn {
namespace {

template <typename... Values>
std::string text(const char* format, Values... values) {
  char line[200];
  std::snprintf(line, sizeof line, format, values...);
  return line;
}

struct Describe {
  std::string operator()(const VirtualNotUnderstood&) const { return "not understood"; }
  std::string operator()(const VirtualHandshake&) const { return "hello"; }
  std::string operator()(const VirtualMouse& m) const {
    return text("%s %d %d lrm %d%d%d wheel %d", m.relative ? "rel" : "abs", m.x, m.y, m.left, m.right, m.middle,
                m.wheel);
  }
  std::string operator()(const VirtualRawMouse& m) const {
    return text("raw %d %d buttons %d wheel %d", m.x, m.y, m.buttons, m.wheel);
  }
  std::string operator()(const VirtualKeyboard& k) const {
    return text("keys %02X %02X %02X %02X %02X %02X mod %02X", k.keys[0], k.keys[1], k.keys[2], k.keys[3], k.keys[4],
                k.keys[5], k.modifiers);
  }
  std::string operator()(const VirtualSetLed& led) const { return text("led %d", led.status); }
  std::string operator()(const VirtualGetLed&) const { return "led?"; }
  std::string operator()(const VirtualFirmwareGreeting&) const { return "greeting"; }
  std::string operator()(const VirtualFirmwareChunk& chunk) const { return text("chunk %d/%d", chunk.id, chunk.total); }
  std::string operator()(const VirtualGetInfo&) const { return "info?"; }
  std::string operator()(const VirtualSetName& name) const {
    return "name " + std::string(reinterpret_cast<const char*>(name.bytes.data()));
  }
};

std::function<void(std::span<const uint8_t>)>& writeWatcher() {
  static std::function<void(std::span<const uint8_t>)> watcher;
  return watcher;
}

int watchedWrite(hid_device* device, const unsigned char* data, size_t length) {
  writeWatcher()({data, length});
  return VirtualHid::functions().write(device, data, length);
}

const HidFunctions& watchedFunctions() {
  static const HidFunctions functions = [] {
    HidFunctions table = VirtualHid::functions();
    table.write = watchedWrite;
    return table;
  }();
  return functions;
}

}  // namespace

void Signal::set() {
  const std::lock_guard lock(mutex_);
  set_ = true;
  changed_.notify_all();
}

bool Signal::wait() {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, kTestPatience, [this] { return set_.load(); });
}

std::ostream& operator<<(std::ostream& out, const Outcome& outcome) {
  static constexpr const char* kNames[] = {"mouse", "keyboard", "upgrade", "handshake"};
  return out << kNames[static_cast<int>(outcome.kind)] << " result " << outcome.result << " chunk " << outcome.id << "/"
             << outcome.total;
}

std::vector<Outcome> RecordingListener::outcomes() const {
  const std::lock_guard lock(mutex_);
  return outcomes_;
}

size_t RecordingListener::count() const {
  const std::lock_guard lock(mutex_);
  return outcomes_.size();
}

std::vector<std::thread::id> RecordingListener::threads() const {
  const std::lock_guard lock(mutex_);
  return threads_;
}

void RecordingListener::add(Outcome outcome) {
  const std::lock_guard lock(mutex_);
  outcomes_.push_back(outcome);
  threads_.push_back(std::this_thread::get_id());
}

void TestProxy::drain() {
  // Shared: when the wait gives up, the task may still run.
  auto done = std::make_shared<Signal>();
  addTask(new MarkerTask([done] { done->set(); }));
  ASSERT_TRUE(done->wait());
}

WatchedHid::WatchedHid(std::function<void(std::span<const uint8_t>)> on_write) {
  writeWatcher() = std::move(on_write);
  setHidFunctions(&watchedFunctions());
}

WatchedHid::~WatchedHid() {
  setHidFunctions(&VirtualHid::functions());
  writeWatcher() = nullptr;
}

std::string describe(const VirtualRecord& record) {
  return std::visit(Describe{}, record);
}

ProxyTest::ProxyTest() = default;

ProxyTest::~ProxyTest() {
  proxy_.reset();
  EXPECT_EQ(listener_.upgrade_steps, 0) << "no proxy reports steps: that is meant";
}

void ProxyTest::plugIn(VirtualMirnSettings settings) {
  proxy_.reset();
  hid_.reset();
  mirn_ = std::make_shared<VirtualMirn>(std::move(settings));
  hid_ = std::make_unique<ScopedVirtualHid>(std::vector<std::shared_ptr<VirtualMirn>>{mirn_});
}

TestProxy& ProxyTest::start(const std::string& version) {
  VirtualMirnSettings settings;
  settings.version = version;
  return start(std::move(settings));
}

TestProxy& ProxyTest::start(VirtualMirnSettings settings) {
  plugIn(std::move(settings));
  proxy_ = std::make_unique<TestProxy>(&listener_);
  proxy_->initKeyMap();
  seen_ = mirn_->receivedCount();
  return *proxy_;
}

std::vector<std::string> ProxyTest::arrived() {
  proxy_->drain();
  std::vector<std::string> lines;
  for (const VirtualReceived& received : mirn_->receivedAfter(seen_)) lines.push_back(describe(received.record));
  seen_ = mirn_->receivedCount();
  return lines;
}

ScratchDirectory::ScratchDirectory() {
  std::string pattern = (std::filesystem::temp_directory_path() / "mirn-test-XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr) std::abort();
  root_ = pattern;
}

ScratchDirectory::~ScratchDirectory() {
  std::error_code ignored;
  std::filesystem::remove_all(root_, ignored);
}

std::string ScratchDirectory::write(const std::string& name, const std::string& content) const {
  std::ofstream(path(name), std::ios::binary) << content;
  return path(name);
}

std::string readFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

LogCapture::LogCapture() {
  flogger& log = flogger::GetInitance();
  log.close();
  log.loadcfg(directory_.root().c_str(), 15, 100 << 20, 2);
  log.open("captured", filelog::fixed_size, false);
}

LogCapture::~LogCapture() {
  flogger::GetInitance().close();
}

std::string LogCapture::text() const {
  std::string all;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(directory_.root())) {
    if (entry.is_regular_file()) all += readFile(entry.path());
  }
  return all;
}

}  // namespace mirn
