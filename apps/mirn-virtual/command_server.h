// Where commands come from: standard input, and a socket in the file system.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "virtual/usb/owned_descriptor.h"

struct pollfd;

namespace mirn {

// Bound to one thread.
class CommandServer {
 public:
  // Answers one line; what it returns is sent back with a line end.
  using Handler = std::function<std::string(std::string_view line)>;

  explicit CommandServer(Handler handler) : handler_(std::move(handler)) {}
  // Removes the socket.
  ~CommandServer();
  CommandServer(const CommandServer&) = delete;
  CommandServer& operator=(const CommandServer&) = delete;

  void useStandardInput();
  // Only this user may connect. A socket that nobody listens on any more is replaced, any other file is not. False and
  // a line for a person when that fails.
  bool listenAt(const std::string& path, std::string* detail);

  // Appends what to wait for.
  void addWaits(std::vector<pollfd>* waits) const;
  // Handles what is ready among them.
  void handle(const std::vector<pollfd>& waits);

 private:
  struct Source {
    int input = -1;
    int output = -1;
    OwnedDescriptor owned;  // a connection's; standard input is not ours to close
    std::string buffer;
  };

  void accept();
  // False at its end.
  bool read(Source* source);

  const Handler handler_;
  OwnedDescriptor listener_;
  std::string path_;
  std::vector<Source> sources_;
};

}  // namespace mirn
