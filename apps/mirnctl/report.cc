#include "apps/mirnctl/report.h"

#include "apps/common/program_start.h"
#include "apps/common/stop_request.h"
#include "apps/common/utf8.h"

namespace mirn {
namespace {

std::string dumped(const Json& value) {
  return value.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
}

}  // namespace

int Report::success(const std::string& text, const Json& fields) {
  bool written = true;
  if (json_) {
    Json whole = {{"ok", true}};
    whole.update(fields);
    written = writeAll(descriptor_, dumped(whole));
  } else {
    written = writeAll(descriptor_, text);
  }
  if (!written) {
    writeAll(error_descriptor_, "mirnctl: can't write to standard output\n");
    return kExitData;
  }
  return kExitOk;
}

int Report::failure(ExitStatus status, const std::string& message, const Json& fields) {
  if (json_) {
    Json whole = {{"ok", false}, {"status", static_cast<int>(status)}, {"error", message}};
    whole.update(fields);
    writeAll(descriptor_, dumped(whole));
  } else {
    writeAll(error_descriptor_, "mirnctl: " + message + "\n");
  }
  return status;
}

int Report::stopped(int signal, const std::string& message, const Json& fields) {
  return failure(static_cast<ExitStatus>(kExitSignal + signal),
                 "Stopped by " + std::string(signalName(signal)) + ". " + message, fields);
}

bool Report::line(const std::string& text, const Json& fields) {
  return writeAll(descriptor_, json_ ? dumped(fields) : text + "\n");
}

void Report::text(const std::string& text) {
  if (!json_) {
    writeAll(descriptor_, text);
  }
}

void Report::note(const std::string& message) {
  writeAll(error_descriptor_, "mirnctl: " + message + "\n");
}

std::string printable(const std::string& text) {
  std::string clean;
  for (const Utf8Character& character : utf8Characters(text)) {
    bool control = character.code < 0x20 || (character.code >= 0x7F && character.code < 0xA0);
    clean += !character.valid || control ? "\xEF\xBF\xBD" : utf8Of(character.code);
  }
  return clean;
}

}  // namespace mirn
