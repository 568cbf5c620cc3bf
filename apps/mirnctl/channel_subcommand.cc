#include <unistd.h>

#include <memory>
#include <string>

#include "apps/mirnctl/channel_command.h"
#include "apps/mirnctl/commands.h"
#include "plugin/registration.h"

namespace mirn {

void addChannelCommand(CLI::App& app, ChosenCommand& chosen) {
  CLI::App* command = app.add_subcommand(
      "channel", "Speak raw channel messages: a line of hex in, a line of hex, no-reply or not-implemented out");
  auto plugin = std::make_shared<std::string>("main");
  command->add_option("--plugin", *plugin, "Which plug-in serves the channel: main or second")
      ->check(CLI::IsMember({"main", "second"}));
  command->callback([&chosen, plugin] {
    chosen = [plugin](Context& context) -> int {
      if (context.report().json()) {
        return context.report().failure(kExitUsage, "--json and raw channel messages don't go together.");
      }
      Engine engine;
      if (*plugin == "second") {
        registerFlutterMirnPlugin(engine.makeRegistrar());
      } else {
        registerFlutterMirnPluginCApi(engine.makeRegistrar());
      }
      int status = runChannel(engine, STDIN_FILENO, context.report().descriptor());
      return status == kExitData ? context.report().failure(kExitData, "Can't read standard input.") : status;
    };
  });
}

}  // namespace mirn
