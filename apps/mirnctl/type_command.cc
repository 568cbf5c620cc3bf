#include <algorithm>
#include <cstdio>
#include <iostream>
#include <iterator>
#include <memory>

#include "apps/common/text_typing.h"
#include "apps/common/typing_run.h"
#include "apps/mirnctl/answer_wait.h"
#include "apps/mirnctl/commands.h"
#include "host/main_loop.h"

namespace mirn {
namespace {

struct TypeOptions {
  std::string text;
  bool from_input = false;
  bool skip = false;
  std::string layout = "us";
};

uint64_t keysAnswered() {
  HostLinkStatistics link = hostLinkStatistics();
  return link.keyboardSent + link.keyboardFailed;
}

Json untypableFields(const TypingPlan& plan) {
  Json list = Json::array();
  for (const Untypable& entry : plan.untypable) {
    list.push_back(
        {{"character", entry.shown}, {"count", entry.count}, {"line", entry.line}, {"column", entry.column}});
  }
  return {{"untypable", list}};
}

int runType(Context& context, TypeOptions options) {
  if (options.from_input) {
    options.text.assign(std::istreambuf_iterator<char>(std::cin), {});
    if (std::ferror(stdin) != 0) {
      return context.report().failure(kExitData, "Can't read standard input.");
    }
  }
  const KeyboardLayout* layout = keyboardLayout(options.layout);
  if (layout == nullptr) {
    return context.report().failure(kExitUsage, "Unknown layout \"" + options.layout + "\".");
  }
  TypingPlan plan = planTyping(options.text, *layout);
  if (!plan.untypable.empty() && !options.skip) {
    return context.report().failure(kExitData, untypableSummary(plan) + "; nothing was sent (--skip leaves them out).",
                                    untypableFields(plan));
  }
  if (auto trouble = context.needKeyboard()) {
    return *trouble;
  }
  AnsweredInput input(context.session());
  TypingRun run(plan, input, keysAnswered(), hostLinkStatistics().keyboardFailed);
  auto advance = [&] {
    return input.signal() != 0 || run.advance(keysAnswered(), hostLinkStatistics().keyboardFailed,
                                              std::chrono::steady_clock::now()) != TypingRun::State::kTyping;
  };
  // The run gives up by itself when the device falls silent.
  while (!runLoopUntil(advance, std::chrono::hours(1))) {
  }
  if (run.state() != TypingRun::State::kDone) {
    return input.failure(context.report(), run.failure(), {{"typed", run.charactersDone()}});
  }
  Json fields = {{"typed", run.charactersDone()}};
  if (!plan.untypable.empty()) {
    fields.update(untypableFields(plan));
  }
  return context.report().success("typed " + std::to_string(run.charactersDone()) + " characters\n", fields);
}

}  // namespace

void addTypeCommand(CLI::App& app, ChosenCommand& chosen) {
  CLI::App* command = app.add_subcommand("type", "Type a text through key presses");
  auto options = std::make_shared<TypeOptions>();
  CLI::Option* text = command->add_option("TEXT", options->text, "The text; from standard input without it");
  command->add_flag("--skip", options->skip, "Leave out what can't be typed instead of refusing the text");
  command->add_option("--layout", options->layout, "Keyboard layout that the target computer uses")
      ->capture_default_str();
  command->callback([&chosen, options, text] {
    options->from_input = text->count() == 0;
    chosen = [options](Context& context) { return runType(context, *options); };
  });
}

}  // namespace mirn
