#include "apps/mirnctl/channel_command.h"

#include <glib-unix.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "apps/common/program_start.h"
#include "apps/mirnctl/exit_status.h"

namespace mirn {
namespace {

constexpr char kChannel[] = "flutter_mirn";
constexpr std::string_view kWait = "wait ";
constexpr size_t kReadBytes = 65536;
// Longer lines are refused as a whole: no call of the channel comes near it.
constexpr size_t kMostLineBytes = size_t{64} << 20;

int digitOf(char letter) {
  if (letter >= '0' && letter <= '9') return letter - '0';
  if (letter >= 'a' && letter <= 'f') return letter - 'a' + 10;
  if (letter >= 'A' && letter <= 'F') return letter - 'A' + 10;
  return -1;
}

std::optional<std::vector<uint8_t>> bytesOf(std::string_view hex) {
  if (hex.size() % 2 != 0) return std::nullopt;
  std::vector<uint8_t> bytes(hex.size() / 2);
  for (size_t i = 0; i < bytes.size(); ++i) {
    const int high = digitOf(hex[i * 2]);
    const int low = digitOf(hex[i * 2 + 1]);
    if (high < 0 || low < 0) return std::nullopt;
    bytes[i] = static_cast<uint8_t>(high * 16 + low);
  }
  return bytes;
}

std::string hexOf(const std::vector<uint8_t>& bytes) {
  constexpr char kDigits[] = "0123456789abcdef";
  std::string hex(bytes.size() * 2, '0');
  for (size_t i = 0; i < bytes.size(); ++i) {
    hex[i * 2] = kDigits[bytes[i] >> 4];
    hex[i * 2 + 1] = kDigits[bytes[i] & 15];
  }
  return hex;
}

std::string_view trimmed(std::string_view line) {
  constexpr std::string_view kBlanks = " \t\r";
  const size_t first = line.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) return {};
  return line.substr(first, line.find_last_not_of(kBlanks) - first + 1);
}

std::string replyLine(const ChannelReply& reply) {
  switch (reply.kind) {
    case ChannelReply::Kind::kReply:
      return hexOf(reply.bytes);
    case ChannelReply::Kind::kNotImplemented:
      return "not-implemented";
    case ChannelReply::Kind::kNoReply:
    case ChannelReply::Kind::kPending:
      return "no-reply";
  }
  return "error: unknown kind of reply";
}

// One line after the other, each in a turn of the loop of its own. At any time one source is attached: the input, the
// next line's turn, or the timer of a wait.
class Runner {
 public:
  Runner(Engine& engine, int input, int output)
      : engine_(engine), input_(input), output_(output), loop_(g_main_loop_new(nullptr, FALSE)) {}
  ~Runner() { g_main_loop_unref(loop_); }
  Runner(const Runner&) = delete;
  Runner& operator=(const Runner&) = delete;

  int run() {
    waitForInput();
    g_main_loop_run(loop_);
    return status_;
  }

 private:
  void waitForInput() {
    g_unix_fd_add(input_, static_cast<GIOCondition>(G_IO_IN | G_IO_HUP | G_IO_ERR), &onInput, this);
  }

  // The main queue's priority: lines and posted tasks take turns.
  void nextTurn() { g_idle_add_full(G_PRIORITY_DEFAULT, &onTurn, this, nullptr); }

  static gboolean onInput(gint, GIOCondition, gpointer self) {
    static_cast<Runner*>(self)->read();
    return G_SOURCE_REMOVE;
  }
  static gboolean onTurn(gpointer self) {
    static_cast<Runner*>(self)->turn();
    return G_SOURCE_REMOVE;
  }
  static gboolean onWaited(gpointer self) {
    auto* runner = static_cast<Runner*>(self);
    runner->answer("ok");
    return G_SOURCE_REMOVE;
  }

  void read() {
    std::array<char, kReadBytes> block;
    const ssize_t count = ::read(input_, block.data(), block.size());
    if (count < 0 && (errno == EINTR || errno == EAGAIN)) return waitForInput();
    if (count <= 0) {
      ended_ = true;
      if (count < 0) status_ = kExitData;
    } else {
      text_.append(block.data(), static_cast<size_t>(count));
    }
    turn();
  }

  // Takes the next line, or asks for more of it.
  void turn() {
    const size_t end = text_.find('\n', searched_);
    if (end == std::string::npos && !ended_) {
      text_.erase(0, at_);
      at_ = 0;
      searched_ = text_.size();
      forgetLongLine();
      return waitForInput();
    }
    if (end == std::string::npos && at_ >= text_.size()) return g_main_loop_quit(loop_);
    const std::string line = text_.substr(at_, end == std::string::npos ? end : end - at_);
    at_ = end == std::string::npos ? text_.size() : end + 1;
    searched_ = at_;
    handle(trimmed(line));
  }

  // Keeps the memory of an endless line bounded; what is left of it is no hex, so it gets its error when it ends.
  void forgetLongLine() {
    if (text_.size() <= kMostLineBytes) return;
    text_ = "(line too long)";
    searched_ = text_.size();
  }

  void handle(std::string_view line) {
    if (line.starts_with(kWait)) return wait(trimmed(line.substr(kWait.size())));
    const std::optional<std::vector<uint8_t>> message = bytesOf(line);
    if (!message) return answer("error: neither hex nor \"wait MS\"");
    answer(replyLine(engine_.deliver(kChannel, *message)));
  }

  void wait(std::string_view number) {
    unsigned milliseconds = 0;
    const auto parsed = std::from_chars(number.data(), number.data() + number.size(), milliseconds);
    if (parsed.ec != std::errc() || parsed.ptr != number.data() + number.size()) {
      return answer("error: \"wait\" takes milliseconds");
    }
    g_timeout_add_full(G_PRIORITY_DEFAULT, milliseconds, &onWaited, this, nullptr);
  }

  void answer(const std::string& line) {
    if (!writeAll(output_, line + "\n")) {
      status_ = kExitDevice;
      return g_main_loop_quit(loop_);
    }
    nextTurn();
  }

  Engine& engine_;
  const int input_;
  const int output_;
  GMainLoop* const loop_;
  std::string text_;     // what was read
  size_t at_ = 0;        // where the next line begins
  size_t searched_ = 0;  // up to where no line end was found
  bool ended_ = false;
  int status_ = 0;
};

}  // namespace

int runChannel(Engine& engine, int input, int output) {
  return Runner(engine, input, output).run();
}

}  // namespace mirn
