// What a command has to say, once for people and once for scripts.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

#include "apps/mirnctl/exit_status.h"

namespace mirn {

// Keys keep the order in which they were written.
using Json = nlohmann::ordered_json;

// Writes to the reserved standard output; errors go to standard error. Bound to the main thread.
class Report {
 public:
  // Descriptors of the program's own output and of its error lines; borrowed.
  Report(int descriptor, int error_descriptor, bool json)
      : descriptor_(descriptor), error_descriptor_(error_descriptor), json_(json) {}

  bool json() const { return json_; }
  int descriptor() const { return descriptor_; }

  // The outcome of a command: `text` (with line ends) for people, or `fields` with "ok": true before them.
  int success(const std::string& text, const Json& fields);
  // One clear line: "mirnctl: MESSAGE" on standard error, or {"ok": false, "status": .., "error": ..} as output.
  int failure(ExitStatus status, const std::string& message, const Json& fields = Json::object());
  // The command was ended by a signal; `message` says how that leaves things.
  int stopped(int signal, const std::string& message, const Json& fields = Json::object());
  // A line on the way (an event, progress): the text or the object, never both. False when the reader is gone.
  bool line(const std::string& text, const Json& fields);
  void text(const std::string& text);
  // A line for the person on standard error, whatever the form of the output: "mirnctl: MESSAGE".
  void note(const std::string& message);

 private:
  int descriptor_;
  int error_descriptor_;
  bool json_;
};

// Text with what is no UTF-8 replaced, so that it can stand in JSON.
std::string printable(const std::string& text);

}  // namespace mirn
