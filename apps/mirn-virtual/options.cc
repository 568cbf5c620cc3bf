#include "apps/mirn-virtual/options.h"

#include <getopt.h>

#include <charconv>
#include <cstring>
#include <string_view>

namespace mirn {

namespace {

constexpr char kHelp[] =
    R"(mirn-virtual presents a virtual Mirn, video and HID, to this machine's own kernel.

Usage: mirn-virtual [OPTION]...

  -n, --devices=N          this many devices (1 to 8)
  -s, --speed=SPEED        high (default) or super
  -t, --transfer=KIND      video by bulk (default) or isochronous transfers (high speed only)
  -p, --port=N             the first device's port of vhci-hcd; the next ones get the next ports
      --picture=KIND       target (default: a desktop that reacts to what it is sent) or pattern
      --name=TEXT          what the device tells as its name (at most 20 bytes)
      --firmware=TEXT      what it tells as its firmware version (at most 9 bytes)
      --serial=TEXT        its serial number; with several devices the others get "-2", "-3" ...
  -f, --faults=PLAN        what goes wrong and when, such as "drop@3,delay=80@5+,unplug@12"
  -c, --control=PATH       take commands on a socket there as well
      --no-stdin           take no commands from standard input
      --unplugged          begin unplugged; "replug" plugs the devices in
  -h, --help
  -V, --version

Commands, one a line; N is a device from 1, without it all are meant:
  unplug [N]   replug [N]   faults [N] PLAN   hold [N]   release [N]   status   help   quit
Each is answered by "ok", or by "error: " and the reason. While held, a device takes no output report.
Signals: SIGUSR1 unplugs all, SIGUSR2 replugs all, SIGINT, SIGTERM and SIGHUP end.

Exit status: 0 ended by request, 1 failure, 2 wrong arguments, 3 not root, 4 no module vhci-hcd,
5 the port is taken, missing, or none is free.
)";

// Long options without a letter.
enum LongOnly : int { kPicture = 256, kName, kFirmware, kSerial, kNoStdin, kUnplugged };

const option kLongOptions[] = {{"devices", required_argument, nullptr, 'n'},
                               {"speed", required_argument, nullptr, 's'},
                               {"transfer", required_argument, nullptr, 't'},
                               {"port", required_argument, nullptr, 'p'},
                               {"picture", required_argument, nullptr, kPicture},
                               {"name", required_argument, nullptr, kName},
                               {"firmware", required_argument, nullptr, kFirmware},
                               {"serial", required_argument, nullptr, kSerial},
                               {"faults", required_argument, nullptr, 'f'},
                               {"control", required_argument, nullptr, 'c'},
                               {"no-stdin", no_argument, nullptr, kNoStdin},
                               {"unplugged", no_argument, nullptr, kUnplugged},
                               {"help", no_argument, nullptr, 'h'},
                               {"version", no_argument, nullptr, 'V'},
                               {nullptr, 0, nullptr, 0}};

ParsedOptions wrong(const std::string& what) {
  return {std::nullopt, "mirn-virtual: " + what + " (try --help)", VirtualExit::kUsage};
}

std::optional<int> number(std::string_view text, int smallest, int largest) {
  int value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size() || value < smallest || value > largest) {
    return std::nullopt;
  }
  return value;
}

// One option into `options`; what is wrong with it, or "".
std::string take(int letter, const std::string& value, VirtualOptions* options) {
  switch (letter) {
    case 'n':
      if (const auto count = number(value, 1, kMaxVirtualDevices)) {
        options->devices = *count;
        return "";
      }
      return "--devices takes a number from 1 to 8, not \"" + value + "\"";
    case 's':
      if (value != "high" && value != "super") return "--speed is high or super, not \"" + value + "\"";
      options->shape.speed = value == "super" ? UsbSpeed::kSuper : UsbSpeed::kHigh;
      return "";
    case 't':
      if (value != "bulk" && value != "isochronous") {
        return "--transfer is bulk or isochronous, not \"" + value + "\"";
      }
      options->shape.transfer = value == "bulk" ? VideoTransfer::kBulk : VideoTransfer::kIsochronous;
      return "";
    case 'p':
      options->first_port = number(value, 0, 1023);
      return options->first_port ? "" : "--port takes a number, not \"" + value + "\"";
    case kPicture:
      if (value != "target" && value != "pattern") return "--picture is target or pattern, not \"" + value + "\"";
      options->picture = value == "target" ? VirtualPicture::kTarget : VirtualPicture::kPattern;
      return "";
    case kName:
      options->name = value;
      return value.size() <= 20 ? "" : "--name takes at most 20 bytes";
    case kFirmware:
      options->version = value;
      return value.size() <= 9 ? "" : "--firmware takes at most 9 bytes";
    case kSerial:
      options->serial = value;
      return "";
    case 'f': {
      std::string error;
      return FaultPlan::parse(value, &options->faults, &error) ? "" : "--faults: " + error;
    }
    case 'c':
      options->control_path = value;
      return value.empty() ? "--control takes a path" : "";
    case kNoStdin:
      options->commands_from_stdin = false;
      return "";
    case kUnplugged:
      options->unplugged = true;
      return "";
    default:
      return "unknown option";
  }
}

constexpr char kLetters[] = ":n:s:t:p:f:c:hV";

// What getopt did not know, as it was written.
std::string unknownOption(char** argv) {
  // A letter that is known is no wrong one: it stands for a long option with a value that it doesn't take.
  const bool letter = optopt > 0 && optopt < kPicture && std::strchr(kLetters, optopt) == nullptr;
  return letter ? std::string("-") + static_cast<char>(optopt) : argv[optind - 1];
}

}  // namespace

ParsedOptions parseOptions(int argc, char** argv) {
  VirtualOptions options;
  optind = 0;  // begins anew, even behind a line that ended in the middle of a word
  opterr = 0;
  for (;;) {
    const int letter = getopt_long(argc, argv, kLetters, kLongOptions, nullptr);
    if (letter == -1) break;
    if (letter == 'h') return {std::nullopt, kHelp, VirtualExit::kEnded};
    if (letter == 'V') return {std::nullopt, "mirn-virtual " MIRN_VERSION, VirtualExit::kEnded};
    if (letter == '?') return wrong("unknown option " + unknownOption(argv));
    if (letter == ':') return wrong(std::string(argv[optind - 1]) + " needs a value");
    const std::string problem = take(letter, optarg != nullptr ? optarg : "", &options);
    if (!problem.empty()) return wrong(problem);
  }
  if (optind < argc) return wrong(std::string("unexpected argument ") + argv[optind]);
  if (options.shape.speed == UsbSpeed::kSuper && options.shape.transfer == VideoTransfer::kIsochronous) {
    return wrong("isochronous transfers are offered at high speed only");
  }
  return {options, "", VirtualExit::kEnded};
}

}  // namespace mirn
