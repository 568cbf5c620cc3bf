// `mirnctl channel` as a program of another language uses it: hex in, hex out, over pipes.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "embedding/standard_codec.h"
#include "tests/unit/embedding/notation.h"

namespace mirn::test {
namespace {

constexpr int kPatienceMs = 20000;

class RawChannel {
 public:
  explicit RawChannel(std::vector<std::string> arguments) {
    int to[2];
    int from[2];
    if (pipe(to) != 0 || pipe(from) != 0) abort();
    child_ = fork();
    if (child_ == 0) {
      dup2(to[0], STDIN_FILENO);
      dup2(from[1], STDOUT_FILENO);
      for (const int fd : {to[0], to[1], from[0], from[1]}) close(fd);
      arguments.insert(arguments.begin(), MIRN_MIRNCTL);
      std::vector<char*> argv;
      for (std::string& argument : arguments) argv.push_back(argument.data());
      argv.push_back(nullptr);
      execv(MIRN_MIRNCTL, argv.data());
      _exit(127);
    }
    close(to[0]);
    close(from[1]);
    input_ = to[1];
    output_ = from[0];
  }
  ~RawChannel() {
    if (child_ > 0) finish();
    close(output_);
  }

  void send(const std::string& text) {
    ASSERT_EQ(write(input_, text.data(), text.size()), static_cast<ssize_t>(text.size()));
  }

  // The next line, without its end; "(silence)" when none came in time.
  std::string line() {
    for (;;) {
      if (const size_t end = read_.find('\n'); end != std::string::npos) {
        std::string result = read_.substr(0, end);
        read_.erase(0, end + 1);
        return result;
      }
      pollfd ready{output_, POLLIN, 0};
      if (poll(&ready, 1, kPatienceMs) != 1) return "(silence)";
      char block[4096];
      const ssize_t count = ::read(output_, block, sizeof(block));
      if (count <= 0) return "(end)";
      read_.append(block, static_cast<size_t>(count));
    }
  }

  std::string ask(const std::string& text) {
    send(text + "\n");
    return line();
  }

  std::string call(std::string_view method, const Value& arguments = {}) {
    return ask(toHex(encodeMethodCall(method, arguments)));
  }

  // Ends the input; the exit status.
  int finish() {
    close(input_);
    int status = 0;
    waitpid(child_, &status, 0);
    child_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

 private:
  pid_t child_ = -1;
  int input_ = -1;
  int output_ = -1;
  std::string read_;
};

TEST(RawChannel, AnswersEachLineWithOneLine) {
  RawChannel channel({"--virtual", "channel"});
  EXPECT_EQ(channel.call("getSize"), toHex(encodeSuccess(ValueMap{{"width", 0.0}, {"height", 0.0}})));
  EXPECT_EQ(channel.call("initKmProxy"), "0001");
  EXPECT_EQ(channel.call("keyDown", ValueMap{{"key", 65}}), "0000");
  EXPECT_EQ(channel.call("mouseMove", ValueMap{{"x", 1}, {"y", 2}}), "no-reply");
  EXPECT_EQ(channel.call("mouseMove"), toHex(encodeError("INVALID_ARGUMENT", "arguments must be dictionary", Value())));
  EXPECT_EQ(channel.ask("wait 20"), "ok");
  EXPECT_EQ(channel.ask("0300000000"), "not-implemented");
  EXPECT_EQ(channel.ask(""), "not-implemented");
  EXPECT_EQ(channel.ask("zz").substr(0, 6), "error:");
  EXPECT_EQ(channel.ask("wait soon").substr(0, 6), "error:");
  // An unknown command prints on the library's standard output; nothing of it comes here.
  EXPECT_EQ(channel.call("noSuchCommand"), "0000");
  EXPECT_EQ(channel.finish(), 0);
  EXPECT_EQ(channel.line(), "(end)");
}

TEST(RawChannel, KeepsTheOrderOfManyLinesInOneGo) {
  RawChannel channel({"--virtual", "channel"});
  const std::string size = toHex(encodeMethodCall("getSize", Value()));
  const std::string release = toHex(encodeMethodCall("release", Value()));
  channel.send(release + "\nwait 5\r\n" + size + "\nwait 0\n" + release + "\n");
  EXPECT_EQ(channel.line(), "0000");
  EXPECT_EQ(channel.line(), "ok");
  EXPECT_EQ(channel.line().substr(0, 4), "000d");
  EXPECT_EQ(channel.line(), "ok");
  EXPECT_EQ(channel.line(), "0000");
  // The last line may lack its end.
  channel.send(release);
  EXPECT_EQ(channel.finish(), 0);
  EXPECT_EQ(channel.line(), "0000");
}

TEST(RawChannel, ServesTheMainLoopWhileItWaitsForInput) {
  RawChannel channel({"--virtual", "channel"});
  EXPECT_EQ(channel.call("createTexture").substr(0, 4), "0004");
  EXPECT_EQ(channel.call("open"), "0001");
  EXPECT_EQ(channel.ask("wait 300"), "ok");
  EXPECT_EQ(channel.call("release"), "0000");
  EXPECT_EQ(channel.finish(), 0);
}

TEST(RawChannel, OffersTheSecondPlugin) {
  RawChannel channel({"--virtual", "channel", "--plugin", "second"});
  EXPECT_EQ(channel.call("getWidth"), toHex(encodeSuccess(640)));
  EXPECT_EQ(channel.call("createTexture"), "not-implemented");
  EXPECT_EQ(channel.call("captureFrame"), toHex(encodeError("CAPTURE_FAILED", "No frame available", Value())));
  EXPECT_EQ(channel.finish(), 0);
}

TEST(RawChannel, EndsCleanlyWithTrafficRunning) {
  RawChannel channel({"--virtual", "channel"});
  EXPECT_EQ(channel.call("initKmProxy"), "0001");
  EXPECT_EQ(channel.call("open"), "0001");
  for (int i = 0; i < 100; ++i) channel.call("keyDown", ValueMap{{"key", 65 + i % 26}});
  EXPECT_EQ(channel.finish(), 0);
}

}  // namespace
}  // namespace mirn::test
