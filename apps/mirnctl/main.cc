// mirnctl: the Mirn for scripts.
#include <unistd.h>

#include <clocale>
#include <optional>
#include <sstream>
#include <string>

#include "apps/common/program_start.h"
#include "apps/mirnctl/commands.h"
#include "apps/mirnctl/version.h"

namespace mirn {
namespace {

void addGlobalOptions(CLI::App& app, GlobalOptions& options) {
  app.add_flag("--json", options.json, "One JSON object (or one for each line) instead of text");
  app.add_flag("--virtual", options.use_virtual, "Use a virtual Mirn with a virtual target computer");
  app.add_flag("--verbose", options.verbose, "Let the library's own lines through to standard error");
  const char* group = "Virtual device (each implies --virtual)";
  VirtualOptions& world = options.virtual_options;
  app.add_option("--virtual-devices", world.devices, "How many there are")->check(CLI::Range(1, 8))->group(group);
  app.add_option("--virtual-faults", world.faults, "What goes wrong with its answers, e.g. drop@3")->group(group);
  app.add_option("--virtual-video-faults", world.video_faults, "What goes wrong with its pictures, e.g. stall=800@30")
      ->group(group);
  app.add_flag("--virtual-unplugged", world.unplugged, "It is not plugged in")->group(group);
  app.add_flag("--virtual-denied{camera}", options.denied, "Its camera (or with =hid its keyboard) may not be opened")
      ->check(CLI::IsMember({"camera", "hid"}))
      ->group(group);
  app.add_flag("--virtual-busy", world.busy, "Its camera is held by another program")->group(group);
  app.add_flag("--virtual-no-signal", world.no_signal, "Its camera never delivers a picture")->group(group);
  app.add_flag("--virtual-mismatch", world.mismatch, "Its camera belongs to another device than its keyboard")
      ->group(group);
  app.add_option("--virtual-lacks", world.lacks, "What its camera doesn't offer: 720P, 1080P, best, normal")
      ->group(group);
  app.add_option("--virtual-version", world.version, "Firmware version it starts with")->group(group);
  app.add_option("--virtual-pull-after", options.pull_after_ms, "Milliseconds until it is unplugged")->group(group);
  app.add_option("--virtual-plug-after", options.plug_after_ms, "Milliseconds until it is plugged in again")
      ->group(group);
}

void addCommands(CLI::App& app, ChosenCommand& chosen) {
  addDevicesCommand(app, chosen);
  addDoctorCommand(app, chosen);
  addInfoCommand(app, chosen);
  addSetNameCommand(app, chosen);
  addLedCommand(app, chosen);
  addKeyCommand(app, chosen);
  addTypeCommand(app, chosen);
  addMouseCommand(app, chosen);
  addSnapshotCommand(app, chosen);
  addQualityCommand(app, chosen);
  addColorCommand(app, chosen);
  addWatchCommand(app, chosen);
  addUpgradeCommand(app, chosen);
  addLatencyCommand(app, chosen);
#ifdef MIRN_CHANNEL_COMMAND
  addChannelCommand(app, chosen);
#endif
}

// Options of the virtual device make no sense on a real one, so each of them asks for it.
bool namesVirtualOption(const CLI::App& app) {
  for (const CLI::Option* option : app.get_options()) {
    if (option->get_name().rfind("--virtual-", 0) == 0 && option->count() != 0) {
      return true;
    }
  }
  return false;
}

// "channel" is for programs that read the library's lines beside its replies; a sanitizer's report must get through.
int errorDescriptor([[maybe_unused]] const CLI::App& app, [[maybe_unused]] const GlobalOptions& options) {
#ifdef MIRN_SANITIZED
  bool silent = false;
#else
  bool silent = !options.verbose && !app.got_subcommand("channel");
#endif
  int copy = silent ? silenceStandardError() : -1;
  return copy >= 0 ? copy : STDERR_FILENO;
}

constexpr const char* kFooter =
    "Exit status: 0 done; 1 the device refused or didn't answer; 2 wrong arguments; 3 not plugged in;\n"
    "4 no permission; 5 busy in another program; 6 no picture; 7 a file or text can't be used;\n"
    "8 doctor found it incomplete; 9 the firmware was not updated;\n"
    "128+N ended by signal N, after letting go of what was held.";

int run(int argc, char** argv, int output) {
  GlobalOptions options;
  ChosenCommand chosen;
  CLI::App app("The Mirn for scripts: keys, pointer, picture, device information, firmware.", "mirnctl");
  app.set_version_flag("--version", std::string("mirnctl ") + kMirnVersion);
  app.require_subcommand(1);
  app.fallthrough();
  app.footer(kFooter);
  addGlobalOptions(app, options);
  addCommands(app, chosen);
  try {
    app.parse(argc, argv);
  } catch (const CLI::Success& success) {
    // Help and version are what was asked for, so they are output.
    std::ostringstream text;
    app.exit(success, text, text);
    writeAll(output, text.str());
    return kExitOk;
  } catch (const CLI::ParseError& error) {
    std::string message = error.what();
    // A word that is no command shows as the lack of one.
    if (std::vector<std::string> rest = app.remaining(); !rest.empty() && app.get_subcommands().empty()) {
      message = "Unknown command " + printable(rest.front());
    }
    for (char& c : message) {
      c = c == '\n' ? ' ' : c;
    }
    return Report(output, STDERR_FILENO, options.json).failure(kExitUsage, message + " (see mirnctl --help)");
  }
  options.use_virtual = options.use_virtual || namesVirtualOption(app);
  for (const std::string& half : options.denied) {
    (half == "hid" ? options.virtual_options.hid_denied : options.virtual_options.denied) = true;
  }
  Context context(options, output, errorDescriptor(app, options));
  // An upgrade alone writes a temporary file, and no signal must leave it (or half an image) behind.
  std::optional<PrivateTempDir> temporary;
  if (app.got_subcommand("upgrade")) {
    context.heedSignals();
    temporary.emplace();
  }
  if (auto trouble = context.prepare()) {
    return *trouble;
  }
  return chosen(context);
}

}  // namespace
}  // namespace mirn

int main(int argc, char** argv) {
  std::setlocale(LC_CTYPE, "");
  mirn::fillMissingInput();
  mirn::ignoreBrokenPipes();
  int output = mirn::reserveStandardOutput();
  int status = mirn::run(argc, argv, output);
  if (status > mirn::kExitSignal) {
    mirn::endBySignal(status - mirn::kExitSignal);
  }
  return status;
}
