// mirn-virtual: virtual Mirns as USB devices of this machine. They are attached over sockets that this process holds,
// so they leave the bus with it, however it ends.
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <iostream>
#include <string>
#include <vector>

#include "apps/mirn-virtual/command_server.h"
#include "apps/mirn-virtual/fleet.h"
#include "apps/mirn-virtual/options.h"
#include "virtual/usb/owned_descriptor.h"
#include "virtual/usb/vhci_host.h"

namespace mirn {
namespace {

int statusOf(VirtualExit exit) {
  return static_cast<int>(exit);
}

int complain(const std::string& what, VirtualExit status) {
  std::cerr << "mirn-virtual: " << what << std::endl;
  return statusOf(status);
}

// The controller, and the drivers that take the device: a system without udev loads none by itself. What comes of it
// shows in the next step.
void loadModules() {
  std::array<const char*, 8> arguments = {"modprobe", "-q",          "-a",       "vhci-hcd",
                                          "usbhid",   "hid-generic", "uvcvideo", nullptr};
  pid_t child = 0;
  if (::posix_spawnp(&child, "modprobe", nullptr, nullptr, const_cast<char**>(arguments.data()), environ) != 0) return;
  int status = 0;
  while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
}

// The signals that steer come as bytes of a descriptor, so nothing runs in a handler.
OwnedDescriptor signalDescriptor() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGUSR1, SIGUSR2}) sigaddset(&signals, number);
  ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  ::signal(SIGPIPE, SIG_IGN);
  ::signal(SIGTTIN, SIG_IGN);
  return OwnedDescriptor(::signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
}

class Run {
 public:
  explicit Run(const VirtualOptions& options)
      : options_(options),
        signals_(signalDescriptor()),
        ended_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
        fleet_(options,
               [this] {
                 const uint64_t one = 1;
                 if (::write(ended_.get(), &one, sizeof(one)) < 0) return;  // full: it is awake anyway
               }),
        commands_([this](std::string_view line) { return fleet_.command(line, &quit_); }) {}

  int run() {
    std::string detail;
    if (!options_.control_path.empty() && !commands_.listenAt(options_.control_path, &detail)) {
      return complain(detail, VirtualExit::kFailed);
    }
    if (options_.commands_from_stdin) commands_.useStandardInput();
    if (!options_.unplugged) {
      const VhciError error = fleet_.plugAll(&detail);
      if (error != VhciError::kNone) return complain(detail, exitStatusOf(error));
    }
    commands_.tell(fleet_.status());
    commands_.tell("ready");
    while (!quit_) waitOnce();
    fleet_.unplugAll();
    return statusOf(VirtualExit::kEnded);
  }

 private:
  void waitOnce() {
    std::vector<pollfd> waits = {{signals_.get(), POLLIN, 0}, {ended_.get(), POLLIN, 0}};
    commands_.addWaits(&waits);
    if (::poll(waits.data(), waits.size(), -1) < 0) return;
    if (waits[1].revents != 0) reportEnds();
    if (waits[0].revents != 0) takeSignals();
    commands_.handle(waits);
  }

  void reportEnds() {
    uint64_t count = 0;
    while (::read(ended_.get(), &count, sizeof(count)) > 0) {
    }
    for (const std::string& line : fleet_.cleanUp()) commands_.tell(line);
  }

  void takeSignals() {
    signalfd_siginfo info{};
    while (::read(signals_.get(), &info, sizeof(info)) == static_cast<ssize_t>(sizeof(info))) {
      switch (static_cast<int>(info.ssi_signo)) {
        case SIGUSR1:
          fleet_.unplugAll();
          commands_.tell("all unplugged");
          break;
        case SIGUSR2: {
          std::string detail;
          commands_.tell(fleet_.plugAll(&detail) == VhciError::kNone ? "all plugged" : "error: " + detail);
          break;
        }
        default:
          quit_ = true;
      }
    }
  }

  const VirtualOptions options_;
  const OwnedDescriptor signals_;
  const OwnedDescriptor ended_;
  bool quit_ = false;
  VirtualFleet fleet_;
  CommandServer commands_;
};

int runProgram(int argc, char** argv) {
  const ParsedOptions parsed = parseOptions(argc, argv);
  if (!parsed.options) {
    (parsed.status == VirtualExit::kEnded ? std::cout : std::cerr) << parsed.text << std::endl;
    return statusOf(parsed.status);
  }
  if (::geteuid() != 0) return complain("only root may plug a device into the kernel", VirtualExit::kNotAllowed);
  loadModules();
  if (!VhciHost().present()) {
    return complain("the kernel module vhci-hcd is missing and could not be loaded", VirtualExit::kNoModule);
  }
  Run run(*parsed.options);
  return run.run();
}

}  // namespace
}  // namespace mirn

int main(int argc, char** argv) {
  return mirn::runProgram(argc, argv);
}
