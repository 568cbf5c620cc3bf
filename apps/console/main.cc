// mirn-console: the Mirn for people.
#include <unistd.h>

#include <clocale>
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "apps/common/program_start.h"
#include "apps/common/settings.h"
#include "apps/common/stop_request.h"
#include "apps/common/virtual_world.h"
#include "apps/console/console_window.h"
#include "apps/console/menus.h"
#include "apps/console/scenario.h"
#include "apps/console/steering.h"
#include "apps/console/version.h"

namespace mirn {
namespace {

constexpr const char* kHelp =
    "Usage: mirn-console [OPTION...]\n"
    "\n"
    "The screen of another computer, its keyboard and its pointer, through a Mirn.\n"
    "\n"
    "  --virtual            use a virtual Mirn with a virtual target computer\n"
    "  --settings FILE      keep the settings in FILE instead of the XDG folder\n"
    "  --scenario FILE.png  without a window: run the whole job on the virtual Mirn\n"
    "                       step by step and leave the target's picture in FILE.png\n"
    "  --help, --version\n"
    "\n"
    "With --virtual also:\n"
    "  --steer              take commands for the virtual device from standard input\n"
    "  --virtual-unplugged, --virtual-denied[=hid], --virtual-busy, --virtual-no-signal,\n"
    "  --virtual-mismatch, --virtual-still\n"
    "  --virtual-faults PLAN, --virtual-video-faults PLAN, --virtual-fps N,\n"
    "  --virtual-lacks 720P,1080P,best,normal (any of them)\n";

struct Options {
  bool use_virtual = false;
  bool steer = false;
  std::string settings;
  std::string scenario;
  VirtualOptions world;
};

// False with a line in `fault` when the arguments make no sense.
bool parse(const std::vector<std::string>& arguments, Options& options, std::string& fault) {
  struct Flag {
    const char* name;
    bool* value;
  };
  struct Text {
    const char* name;
    std::string* value;
  };
  std::string rate;
  VirtualOptions& world = options.world;
  const std::vector<Flag> flags = {{"--virtual", &options.use_virtual},
                                   {"--steer", &options.steer},
                                   {"--virtual-unplugged", &world.unplugged},
                                   {"--virtual-denied", &world.denied},
                                   {"--virtual-busy", &world.busy},
                                   {"--virtual-no-signal", &world.no_signal},
                                   {"--virtual-mismatch", &world.mismatch},
                                   {"--virtual-still", &world.still},
                                   {"--virtual-denied=hid", &world.hid_denied}};
  const std::vector<Text> texts = {{"--settings", &options.settings},   {"--scenario", &options.scenario},
                                   {"--virtual-faults", &world.faults}, {"--virtual-video-faults", &world.video_faults},
                                   {"--virtual-lacks", &world.lacks},   {"--virtual-fps", &rate}};
  for (size_t i = 0; i < arguments.size(); ++i) {
    bool known = false;
    for (const Flag& flag : flags) {
      if (arguments[i] == flag.name) {
        *flag.value = true;
        known = true;
      }
    }
    for (const Text& text : texts) {
      if (arguments[i] == text.name) {
        if (i + 1 == arguments.size()) {
          fault = arguments[i] + " wants a value";
          return false;
        }
        *text.value = arguments[++i];
        known = true;
        break;
      }
    }
    if (!known) {
      fault = "unknown argument " + arguments[i];
      return false;
    }
  }
  if (!rate.empty()) {
    int value = std::atoi(rate.c_str());
    if (value < 1 || value > 120) {
      fault = "--virtual-fps wants 1..120";
      return false;
    }
    world.frames_per_second = static_cast<uint32_t>(value);
  }
  if (!options.scenario.empty()) {
    options.use_virtual = true;
  }
  if (options.steer && !options.use_virtual) {
    fault = "--steer needs --virtual";
    return false;
  }
  return true;
}

// Nothing is held on a target yet, or the target is a virtual one: no more than our temporary file is left behind.
void endAtOnce(const PrivateTempDir& temporary, int signal) {
  std::error_code ignored;
  std::filesystem::remove_all(temporary.path(), ignored);
  endBySignal(signal);
}

int runWindow(const Options& options, VirtualWorld* world, const PrivateTempDir& temporary, int output) {
  auto application = Gtk::Application::create("org.mirn.Console", Gio::Application::Flags::NON_UNIQUE);
  std::unique_ptr<ConsoleWindow> window;
  // A signal is the close button: everything held is let go, the settings are kept, an upgrade goes on.
  const StopRequest stop([&](int signal) {
    if (window) {
      window->close();
    } else {
      endAtOnce(temporary, signal);
    }
  });
  std::unique_ptr<Steering> steering;
  application->signal_activate().connect([&] {
    window =
        std::make_unique<ConsoleWindow>(options.settings.empty() ? settingsPath() : options.settings, world != nullptr);
    application->add_window(*window);
    setAccelerators(*application.get());
    if (options.steer) {
      steering = std::make_unique<Steering>(*window, *world, output);
    }
    window->present();
  });
  int status = application->run();
  steering.reset();
  window.reset();
  hostReleaseProxy();
  return status;
}

int run(const std::vector<std::string>& arguments, const PrivateTempDir& temporary, int output) {
  if (!arguments.empty() && (arguments[0] == "--help" || arguments[0] == "-h")) {
    writeAll(output, kHelp);
    return 0;
  }
  if (!arguments.empty() && arguments[0] == "--version") {
    writeAll(output, std::string("mirn-console ") + kConsoleVersion + "\n");
    return 0;
  }
  Options options;
  std::string fault;
  if (!parse(arguments, options, fault)) {
    std::cerr << "mirn-console: " << fault << "; see --help\n";
    return 2;
  }
  VirtualWorld* world = nullptr;
  if (options.use_virtual) {
    world = VirtualWorld::create(options.world, &fault);
    if (world == nullptr) {
      std::cerr << "mirn-console: " << fault << "\n";
      return 2;
    }
  }
  if (world != nullptr && !options.scenario.empty()) {
    const StopRequest stop([&](int signal) { endAtOnce(temporary, signal); });
    return runScenario(*world, options.scenario, output);
  }
  return runWindow(options, world, temporary, output);
}

}  // namespace
}  // namespace mirn

int main(int argc, char** argv) {
  std::setlocale(LC_ALL, "");
  mirn::ignoreBrokenPipes();
  mirn::PrivateTempDir temporary;
  int output = mirn::reserveStandardOutput();
  return mirn::run(std::vector<std::string>(argv + 1, argv + argc), temporary, output);
}
