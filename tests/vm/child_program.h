// Programs of the build as a user runs them.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

namespace mirn {

// A file of the build folder.
inline std::string builtFile(const std::string& name) {
  const char* build = std::getenv("MIRN_VM_BUILD");
  return std::string(build != nullptr ? build : ".") + "/" + name;
}

// mirn-virtual as a child, with pipes to its standard streams.
class Program {
 public:
  explicit Program(std::vector<std::string> arguments, uid_t user = 0) {
    std::array<int, 2> input{};
    std::array<int, 2> output{};
    EXPECT_EQ(::pipe2(input.data(), O_CLOEXEC), 0);
    EXPECT_EQ(::pipe2(output.data(), O_CLOEXEC), 0);
    arguments.insert(arguments.begin(), builtFile("bin/mirn-virtual"));
    child_ = ::fork();
    if (child_ == 0) {
      ::dup2(input[0], STDIN_FILENO);
      ::dup2(output[1], STDOUT_FILENO);
      ::dup2(output[1], STDERR_FILENO);
      if (user != 0 && ::setuid(user) != 0) ::_exit(99);
      std::vector<char*> raw;
      for (std::string& argument : arguments) raw.push_back(argument.data());
      raw.push_back(nullptr);
      ::execv(raw[0], raw.data());
      ::_exit(98);
    }
    ::close(input[0]);
    ::close(output[1]);
    input_ = input[1];
    output_ = output[0];
  }
  ~Program() {
    if (child_ > 0) {
      ::kill(child_, SIGKILL);
      wait();
    }
    ::close(input_);
    ::close(output_);
  }
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;

  // The next line, "" at the end or when none comes within 20 s.
  std::string line() {
    for (;;) {
      const size_t end = buffer_.find('\n');
      if (end != std::string::npos) {
        const std::string text = buffer_.substr(0, end);
        buffer_.erase(0, end + 1);
        return text;
      }
      pollfd wait{output_, POLLIN, 0};
      std::array<char, 512> bytes{};
      if (::poll(&wait, 1, 20000) <= 0) return "";
      const ssize_t count = ::read(output_, bytes.data(), bytes.size());
      if (count <= 0) return "";
      buffer_.append(bytes.data(), static_cast<size_t>(count));
    }
  }
  bool waitForLine(const std::string& wanted) {
    for (std::string text = line(); !text.empty(); text = line()) {
      if (text.find(wanted) != std::string::npos) return true;
    }
    return false;
  }
  std::string ask(const std::string& command) {
    const std::string text = command + "\n";
    EXPECT_EQ(::write(input_, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    return line();
  }
  // Asks until its input is full, and reads nothing.
  void askWithoutReading(const std::string& command) {
    const std::string text = command + "\n";
    ::fcntl(input_, F_SETFL, ::fcntl(input_, F_GETFL) | O_NONBLOCK);
    while (::write(input_, text.data(), text.size()) > 0) {
    }
  }
  // Bytes of its output that nobody has read yet.
  int unread() const {
    int count = 0;
    return ::ioctl(output_, FIONREAD, &count) == 0 ? count : -1;
  }
  void send(int signal) { ::kill(child_, signal); }
  // Its exit status, or minus the signal that ended it.
  int wait() {
    int status = 0;
    ::waitpid(std::exchange(child_, -1), &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  }

 private:
  pid_t child_ = -1;
  int input_ = -1;
  int output_ = -1;
  std::string buffer_;
};

}  // namespace mirn
