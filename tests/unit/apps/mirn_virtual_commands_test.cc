// mirn-virtual's commands while whoever sends them does not read: the thread that serves them never waits.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "apps/mirn-virtual/command_server.h"
#include "apps/mirn-virtual/output_queue.h"

namespace mirn {
namespace {

// All that can be read now.
std::string readAll(int descriptor) {
  std::string text;
  std::array<char, 4096> bytes{};
  pollfd wait{descriptor, POLLIN, 0};
  while (::poll(&wait, 1, 0) > 0) {
    const ssize_t count = ::read(descriptor, bytes.data(), bytes.size());
    if (count <= 0) break;
    text.append(bytes.data(), static_cast<size_t>(count));
  }
  return text;
}

class CommandServerTest : public testing::Test {
 protected:
  ~CommandServerTest() override { std::filesystem::remove(path_); }

  OwnedDescriptor connected() const {
    OwnedDescriptor client(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path_.c_str(), sizeof(address.sun_path) - 1);
    EXPECT_EQ(::connect(client.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    return client;
  }
  // Serves until there is nothing to do for it.
  void serve() {
    for (;;) {
      std::vector<pollfd> waits;
      server_.addWaits(&waits);
      if (::poll(waits.data(), waits.size(), 0) <= 0) return;
      server_.handle(waits);
    }
  }
  // Sends as many numbered commands as are taken, and serves meanwhile. How many.
  int flood(int client) {
    int sent = 0;
    for (;; ++sent) {
      const std::string line = "n" + std::to_string(10000000 + sent) + "\n";
      if (::send(client, line.data(), line.size(), 0) != static_cast<ssize_t>(line.size())) {
        serve();
        if (::send(client, line.data(), line.size(), 0) != static_cast<ssize_t>(line.size())) return sent;
      }
    }
  }

  const std::string path_ = testing::TempDir() + "mirn-commands-" + std::to_string(getpid());
  int commands_ = 0;
  std::string ending_;  // of each answer
  CommandServer server_{[this](std::string_view line) {
    ++commands_;
    return "answer to " + std::string(line) + ending_;
  }};
  std::string detail_;
};

TEST_F(CommandServerTest, AClientThatNeverReadsHoldsUpNobody) {
  ASSERT_TRUE(server_.listenAt(path_, &detail_)) << detail_;
  const OwnedDescriptor silent = connected();
  const int sent = flood(silent.get());
  EXPECT_LT(commands_, sent) << "its answers are full, so its commands wait";
  const OwnedDescriptor other = connected();
  ASSERT_EQ(::send(other.get(), "hello\n", 6, 0), 6);
  serve();
  EXPECT_EQ(readAll(other.get()), "answer to hello\n");
}

TEST_F(CommandServerTest, AClientThatReadsLateGetsEveryAnswerInItsOrder) {
  ASSERT_TRUE(server_.listenAt(path_, &detail_)) << detail_;
  const OwnedDescriptor late = connected();
  const int sent = flood(late.get());
  std::string expected;
  for (int i = 0; i < sent; ++i) expected += "answer to n" + std::to_string(10000000 + i) + "\n";
  std::string got;
  for (std::string part = readAll(late.get()); !part.empty(); part = readAll(late.get())) {
    got += part;
    serve();
  }
  EXPECT_EQ(commands_, sent);
  EXPECT_TRUE(got == expected) << got.size() << " of " << expected.size() << " bytes";
}

TEST_F(CommandServerTest, ACommandWaitsUntilTheAnswerBeforeItIsOut) {
  ASSERT_TRUE(server_.listenAt(path_, &detail_)) << detail_;
  constexpr size_t kMoreThanASocketTakes = 4 << 20;
  ending_ = std::string(kMoreThanASocketTakes, '.');
  const OwnedDescriptor client = connected();
  ASSERT_EQ(::send(client.get(), "one\ntwo\n", 8, 0), 8);
  serve();
  EXPECT_EQ(commands_, 1);
  std::string got;
  for (std::string part = readAll(client.get()); !part.empty(); part = readAll(client.get())) {
    got += part;
    serve();
  }
  EXPECT_EQ(commands_, 2);
  EXPECT_TRUE(got == "answer to one" + ending_ + "\nanswer to two" + ending_ + "\n") << got.size() << " bytes";
}

TEST_F(CommandServerTest, TheCommandsOfAClientThatLeavesUnreadAreDone) {
  ASSERT_TRUE(server_.listenAt(path_, &detail_)) << detail_;
  int sent = 0;
  {
    const OwnedDescriptor gone = connected();
    sent = flood(gone.get());
  }
  serve();
  EXPECT_EQ(commands_, sent);
}

TEST_F(CommandServerTest, ALineWithoutEndEndsItsConnection) {
  ASSERT_TRUE(server_.listenAt(path_, &detail_)) << detail_;
  const OwnedDescriptor client = connected();
  const std::string part(4096, 'x');
  for (int i = 0; i < 20; ++i) {
    if (::send(client.get(), part.data(), part.size(), MSG_NOSIGNAL) < 0) break;
    serve();
  }
  char byte = 0;
  EXPECT_LE(::recv(client.get(), &byte, 1, 0), 0);
  EXPECT_NE(errno, EAGAIN) << "the connection is still there";
  EXPECT_EQ(commands_, 0);
}

TEST_F(CommandServerTest, APathThatCanNotBeTakenIsSaid) {
  EXPECT_FALSE(server_.listenAt(std::string(200, 'x'), &detail_));
  EXPECT_EQ(detail_, "the control path is too long");
  EXPECT_FALSE(server_.listenAt("/nonexistent/socket", &detail_));
  EXPECT_EQ(detail_, "/nonexistent/socket: No such file or directory");
  std::ofstream(path_) << "a file of somebody's\n";
  EXPECT_FALSE(server_.listenAt(path_, &detail_));
  EXPECT_TRUE(std::filesystem::is_regular_file(path_)) << "it stays";
}

TEST_F(CommandServerTest, ASocketIsTakenOverOnlyFromNobody) {
  ASSERT_TRUE(server_.listenAt(path_, &detail_)) << detail_;
  CommandServer second([](std::string_view) { return ""; });
  EXPECT_FALSE(second.listenAt(path_, &detail_)) << "someone listens";
  // More callers than the first one has taken: it is still there.
  std::vector<OwnedDescriptor> callers;
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path_.c_str(), sizeof(address.sun_path) - 1);
  do {
    callers.emplace_back(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  } while (::connect(callers.back().get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0);
  EXPECT_FALSE(second.listenAt(path_, &detail_));
  callers.clear();

  const std::string old = path_ + "-old";
  {
    const OwnedDescriptor left(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    std::strncpy(address.sun_path, old.c_str(), sizeof(address.sun_path) - 1);
    ASSERT_EQ(::bind(left.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
  }
  EXPECT_TRUE(second.listenAt(old, &detail_)) << detail_;
}

// A pipe as standard output: both ends wait, as a shell's do.
class OutputQueueTest : public testing::Test {
 protected:
  OutputQueueTest() {
    std::array<int, 2> ends{};
    EXPECT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
    read_.reset(ends[0]);
    write_.reset(ends[1]);
  }
  OwnedDescriptor read_;
  OwnedDescriptor write_;
};

TEST_F(OutputQueueTest, AFullPipeKeepsNobodyWaitingAndLosesNothing) {
  OutputQueue queue(write_.get());
  std::string expected;
  for (int i = 0; !queue.pending() || expected.size() < 300000; ++i) {
    const std::string line = "line " + std::to_string(i) + "\n";
    expected += line;
    queue.add(line);
  }
  EXPECT_EQ(::fcntl(write_.get(), F_GETFL) & O_NONBLOCK, 0) << "others share it";
  std::string got;
  while (queue.pending()) {
    got += readAll(read_.get());
    queue.flush();
  }
  got += readAll(read_.get());
  EXPECT_TRUE(got == expected) << got.size() << " of " << expected.size() << " bytes";
}

TEST_F(OutputQueueTest, WhatNobodyReadsAnyMoreIsDropped) {
  OutputQueue queue(write_.get());
  queue.add(std::string(300000, 'x'));
  EXPECT_TRUE(queue.pending());
  read_.reset();
  const auto before = ::signal(SIGPIPE, SIG_IGN);
  queue.flush();
  ::signal(SIGPIPE, before);
  EXPECT_FALSE(queue.pending());
}

TEST(OutputQueueFileTest, AFileIsAppendedTo) {
  const std::string path = testing::TempDir() + "mirn-output-" + std::to_string(getpid());
  OwnedDescriptor file(::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
  ASSERT_EQ(::write(file.get(), "before ", 7), 7);
  OutputQueue queue(file.get());
  queue.add("behind");
  EXPECT_FALSE(queue.pending());
  std::string text;
  std::getline(std::ifstream(path), text);
  EXPECT_EQ(text, "before behind");
  std::filesystem::remove(path);
}

}  // namespace
}  // namespace mirn
