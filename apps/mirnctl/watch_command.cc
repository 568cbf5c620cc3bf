#include <glib.h>

#include <memory>

#include "apps/mirnctl/commands.h"
#include "host/main_loop.h"

namespace mirn {
namespace {

struct WatchOptions {
  int count = 0;    // events after the first state; 0 = for ever
  int seconds = 0;  // 0 = for ever
  bool no_time = false;
};

std::string isoTime() {
  GDateTime* now = g_date_time_new_now_utc();
  char* text = g_date_time_format(now, "%Y-%m-%dT%H:%M:%SZ");
  std::string result = text;
  g_free(text);
  g_date_time_unref(now);
  return result;
}

// False when nobody reads any more.
bool say(Context& context, const WatchOptions& options, bool present) {
  std::string word = present ? "plugged-in" : "unplugged";
  std::string time = options.no_time ? "" : isoTime();
  Json fields = {{"event", word}};
  if (!options.no_time) {
    fields["time"] = time;
  }
  return context.report().line((time.empty() ? "" : time + " ") + word, fields);
}

int runWatch(Context& context, const WatchOptions& options) {
  using Steady = std::chrono::steady_clock;
  bool present = context.session().isPlugged();
  bool read = say(context, options, present);
  Steady::time_point end = Steady::now() + std::chrono::seconds(options.seconds);
  int events = 0;
  while (read && (options.count == 0 || events < options.count)) {
    // The monitor's flag changes on its own thread; the library has no callback for it.
    constexpr std::chrono::milliseconds kEvery{50};
    if (runLoopUntil([&] { return context.session().isPlugged() != present; }, kEvery, kEvery)) {
      present = !present;
      ++events;
      read = say(context, options, present);
    } else if (options.seconds != 0 && Steady::now() >= end) {
      break;
    }
  }
  return read ? kExitOk : context.report().failure(kExitData, "Can't write to standard output.");
}

}  // namespace

void addWatchCommand(CLI::App& app, ChosenCommand& chosen) {
  CLI::App* command = app.add_subcommand("watch", "Print a line whenever a Mirn is plugged in or unplugged");
  auto options = std::make_shared<WatchOptions>();
  command->add_option("--count", options->count, "End after this many changes")->check(CLI::PositiveNumber);
  command->add_option("--seconds", options->seconds, "End after this time")->check(CLI::PositiveNumber);
  command->add_flag("--no-time", options->no_time, "Leave the time out of the lines");
  command->callback(
      [&chosen, options] { chosen = [options](Context& context) { return runWatch(context, *options); }; });
}

}  // namespace mirn
