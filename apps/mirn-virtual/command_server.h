// Where commands come from: standard input, and a socket in the file system.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "apps/mirn-virtual/output_queue.h"
#include "virtual/usb/owned_descriptor.h"

struct pollfd;

namespace mirn {

// Bound to one thread, which no reader can hold up: as long as an answer has not gone out whole, no further command is
// taken from where it came.
class CommandServer {
 public:
  // Answers one line; what it returns is sent back with a line end.
  using Handler = std::function<std::string(std::string_view line)>;

  explicit CommandServer(Handler handler);
  // Removes the socket.
  ~CommandServer();
  CommandServer(const CommandServer&) = delete;
  CommandServer& operator=(const CommandServer&) = delete;

  void useStandardInput();
  // A line on standard output; lost when too much waits there already.
  void tell(const std::string& line);
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
    std::shared_ptr<OutputQueue> output;
    OwnedDescriptor owned;  // a connection's; standard input is not ours to close
    std::string buffer;
  };

  void accept();
  // False at its end.
  bool serve(Source* source, bool readable);
  bool read(Source* source);
  // Answers the lines that have come, as far as the answers go out.
  void answerLines(Source* source);

  const Handler handler_;
  const std::shared_ptr<OutputQueue> standard_output_;
  OwnedDescriptor listener_;
  std::string path_;
  std::vector<Source> sources_;
};

}  // namespace mirn
