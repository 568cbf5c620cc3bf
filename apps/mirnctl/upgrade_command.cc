#include <unistd.h>

#include <array>
#include <cstdio>
#include <memory>

#include "apps/common/program_start.h"
#include "apps/common/upgrade_file.h"
#include "apps/common/upgrade_flow.h"
#include "apps/mirnctl/commands.h"
#include "host/main_loop.h"

namespace mirn {
namespace {

using Steady = std::chrono::steady_clock;

struct UpgradeOptions {
  std::string file;
  bool check_only = false;
  std::string expected_version;
  int replug_seconds = 120;
};

Json fileFields(const UpgradeFile& file) {
  return {{"file", file.path},
          {"kind", file.hex ? "hex" : "raw"},
          {"file_bytes", file.file_bytes},
          {"image_bytes", file.image_bytes},
          {"chunks", file.chunks}};
}

std::string fileText(const UpgradeFile& file) {
  return file.path + ": " + (file.hex ? "Intel HEX, checked; " : "raw image; ") + std::to_string(file.image_bytes) +
         " bytes in " + std::to_string(file.chunks) + (file.chunks == 1 ? " chunk" : " chunks") + " of 1024 are sent\n";
}

std::string progressText(const UpgradeStatus& status) {
  std::array<char, 96> numbers{};
  std::snprintf(numbers.data(), numbers.size(), "chunk %llu of %llu, %3.0f %%, %.1f KiB/s",
                static_cast<unsigned long long>(status.chunk), static_cast<unsigned long long>(status.total),
                status.percent, status.bytes_per_second / 1024);
  std::string text = numbers.data();
  if (status.remaining) {
    text += ", " + std::to_string(status.remaining->count()) + " s left";
  }
  return text;
}

// A bar that redraws its line on a terminal; elsewhere a plain line for every tenth part.
class Progress {
 public:
  explicit Progress(Report& report) : report_(report), terminal_(isatty(report.descriptor()) == 1) {}

  void show(const UpgradeStatus& status) {
    if (report_.json()) {
      return;
    }
    if (terminal_) {
      constexpr size_t kWidth = 30;
      auto filled = static_cast<size_t>(status.percent / 100 * kWidth);
      writeAll(report_.descriptor(), "\r[" + std::string(filled, '#') + std::string(kWidth - filled, ' ') + "] " +
                                         progressText(status) + "\x1B[K");
      open_line_ = true;
      return;
    }
    int tenth = static_cast<int>(status.percent / 10);
    if (tenth != tenth_) {
      tenth_ = tenth;
      writeAll(report_.descriptor(), progressText(status) + "\n");
    }
  }
  void say(const std::string& line) {
    finish();
    report_.text(line + "\n");
  }
  void finish() {
    if (open_line_) {
      writeAll(report_.descriptor(), "\n");
      open_line_ = false;
    }
  }

 private:
  Report& report_;
  bool terminal_;
  bool open_line_ = false;
  int tenth_ = -1;
};

std::optional<std::string> greet(Session& session) {
  if (!session.connectKeyboard()) {
    return std::nullopt;
  }
  std::optional<DeviceInfo> info = session.info();
  return info ? std::optional<std::string>(info->version) : std::nullopt;
}

// A signal ends nothing here: half an image is no firmware. Nothing is on its way while the device is unplugged,
// though, so then it ends the wait.
void heedSignal(Context& context, UpgradeFlow& flow, Progress& progress, bool& said) {
  if (context.signal() == 0) {
    return;
  }
  flow.giveUp();
  if (flow.state() != UpgradeState::kFinished && !said) {
    said = true;
    progress.finish();
    context.report().note(std::string(signalName(context.signal())) +
                          " doesn't stop an upgrade: the device would be left with half a firmware. It goes on.");
  }
}

void follow(Context& context, UpgradeFlow& flow, Progress& progress) {
  constexpr std::chrono::milliseconds kEvery{20};
  bool said_unplugged = false;
  bool said_signal = false;
  while (flow.state() != UpgradeState::kFinished) {
    runLoopFor(kEvery);
    Steady::time_point now = Steady::now();
    flow.update(context.session().upgradeFacts(), now);
    progress.show(flow.status(now));
    heedSignal(context, flow, progress, said_signal);
    if (flow.state() == UpgradeState::kUnplugged && !said_unplugged) {
      said_unplugged = true;
      progress.say("The device was unplugged. Waiting for it to come back.");
    }
    if (flow.wantsHandshake(now)) {
      flow.handshake(greet(context.session()), Steady::now());
    }
  }
  progress.finish();
}

int judgeResult(Context& context, const UpgradeFlow& flow, const UpgradeOptions& options) {
  const std::string& expected = options.expected_version;
  Json fields = fileFields(flow.file());
  fields["result"] = upgradeResultWord(flow.result());
  fields["version_before"] = printable(flow.versionBefore());
  fields["version_after"] = printable(flow.versionAfter());
  fields["failed_chunks"] = flow.status(Steady::now()).failed;
  if (!expected.empty()) {
    fields["expected_version"] = printable(expected);
  }
  // An expected version counts only where the device took the whole file.
  bool whole = flow.result() == UpgradeResult::kUpdated || flow.result() == UpgradeResult::kSameVersion;
  bool good = expected.empty() ? flow.result() == UpgradeResult::kUpdated : whole && flow.versionAfter() == expected;
  std::string text = flow.resultText();
  if (good) {
    return context.report().success(text + "\n", fields);
  }
  if (!expected.empty() && flow.versionAfter() != expected) {
    text += " Expected: version " + expected + ".";
  }
  bool silent = flow.result() == UpgradeResult::kNotAnswering || flow.result() == UpgradeResult::kNotStarted;
  return context.report().failure(silent ? kExitDevice : kExitNotUpdated, text, fields);
}

int runUpgrade(Context& context, const UpgradeOptions& options) {
  UpgradeFile file = checkUpgradeFile(options.file);
  if (!file.ok) {
    return context.report().failure(kExitData, file.reason);
  }
  if (options.check_only) {
    return context.report().success(fileText(file), fileFields(file));
  }
  if (auto trouble = context.needKeyboard()) {
    return *trouble;
  }
  std::optional<DeviceInfo> before = context.session().info();
  if (!before) {
    return context.report().failure(kExitDevice, "The Mirn doesn't answer.");
  }
  context.report().text(fileText(file));
  drainLoop();
  if (context.signal() != 0) {
    return context.report().stopped(context.signal(), "Nothing of the firmware was sent.");
  }
  UpgradeFlow flow(file, before->version, context.session().upgradeFacts(),
                   std::chrono::seconds(options.replug_seconds));
  flow.start(context.session().startUpgrade(file.path), Steady::now());
  Progress progress(context.report());
  follow(context, flow, progress);
  return judgeResult(context, flow, options);
}

}  // namespace

void addUpgradeCommand(CLI::App& app, ChosenCommand& chosen) {
  CLI::App* command = app.add_subcommand("upgrade", "Send new firmware and judge by the version the device then shows");
  auto options = std::make_shared<UpgradeOptions>();
  command->add_option("FILE", options->file, "Intel HEX (.hex, .HEX; checked strictly) or a raw image")->required();
  command->add_flag("--check", options->check_only, "Only check the file and say what would be sent");
  command->add_option("--expect", options->expected_version, "Success is exactly this version afterwards");
  command->add_option("--replug", options->replug_seconds, "Seconds to wait for a device that was unplugged")
      ->capture_default_str()
      ->check(CLI::Range(0, 3600));
  command->callback(
      [&chosen, options] { chosen = [options](Context& context) { return runUpgrade(context, *options); }; });
}

}  // namespace mirn
