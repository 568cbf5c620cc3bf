#include <charconv>
#include <memory>

#include "apps/common/pointer_map.h"
#include "apps/common/pointer_rest.h"
#include "apps/mirnctl/answer_wait.h"
#include "apps/mirnctl/commands.h"

namespace mirn {
namespace {

struct MouseOptions {
  int x = 0;
  int y = 0;
  std::string screen;  // "1920x1080": x and y are pixels of a screen of this size
  std::string button = "left";
  bool twice = false;
  int notches = 1;
  std::vector<int> at = {kFullScale / 2, kFullScale / 2};
};

// "1920x1080" and nothing besides.
bool readScreen(const std::string& text, int& width, int& height) {
  const char* end = text.data() + text.size();
  auto [cross, wrong] = std::from_chars(text.data(), end, width);
  if (wrong != std::errc() || cross == end || *cross != 'x') {
    return false;
  }
  auto [rest, wrong_too] = std::from_chars(cross + 1, end, height);
  return wrong_too == std::errc() && rest == end && width >= 1 && height >= 1 && width <= kFullScale &&
         height <= kFullScale;
}

// Device position from the options; false with a message when it makes no sense.
bool place(const MouseOptions& options, int& x, int& y, std::string& fault) {
  int width = kFullScale + 1;
  int height = kFullScale + 1;
  bool pixels = !options.screen.empty();
  if (pixels && !readScreen(options.screen, width, height)) {
    fault = "\"" + printable(options.screen) + "\" is no screen size; write it like 1920x1080.";
    return false;
  }
  if (x < 0 || y < 0 || x >= width || y >= height) {
    fault = "The position " + std::to_string(x) + "," + std::to_string(y) + " is outside 0.." +
            std::to_string(width - 1) + ", 0.." + std::to_string(height - 1) + ".";
    return false;
  }
  if (pixels) {
    x = positionOfPixel(x, width);
    y = positionOfPixel(y, height);
  }
  return true;
}

void moveSurely(InputSink& input, int x, int y) {
  for (int i = 0; i < PointerRest::kMovesToBeSure; ++i) {
    input.mouseMove(x, y);
  }
}

// Runs `act` at a position and reports it.
int runMouse(Context& context, const MouseOptions& options, int x, int y, const std::string& word, const Json& more,
             const std::function<void(InputSink&, int, int)>& act) {
  std::string fault;
  if (!place(options, x, y, fault)) {
    return context.report().failure(kExitUsage, fault);
  }
  if (auto trouble = context.needKeyboard()) {
    return *trouble;
  }
  AnsweredInput input(context.session());
  // What a crash left held is let go where the pointer is wanted anyway: a release carries a position.
  for (const char* release : {"lbup", "rbup", "mbup"}) {
    input.mouseButton(release, x, y);
  }
  act(input, x, y);
  if (!input.wait()) {
    return input.failure(context.report(), "The Mirn refused a pointer command or didn't answer.");
  }
  Json fields = {{"x", x}, {"y", y}};
  fields.update(more);
  return context.report().success(word + " " + std::to_string(x) + "," + std::to_string(y) + "\n", fields);
}

void addPosition(CLI::App& command, MouseOptions& options) {
  command.add_option("X", options.x, "0 (left) to 32767 (right), or a pixel with --screen")->required();
  command.add_option("Y", options.y, "0 (top) to 32767 (bottom), or a pixel with --screen")->required();
  command.add_option("--screen", options.screen, "X and Y are pixels of a target screen of this size, e.g. 1920x1080");
}

void addMove(CLI::App& mouse, ChosenCommand& chosen) {
  CLI::App* move = mouse.add_subcommand("move", "Move the pointer");
  auto options = std::make_shared<MouseOptions>();
  addPosition(*move, *options);
  move->callback([&chosen, options] {
    chosen = [options](Context& context) {
      return runMouse(context, *options, options->x, options->y, "moved to", Json::object(), &moveSurely);
    };
  });
}

void addClick(CLI::App& mouse, ChosenCommand& chosen) {
  CLI::App* click = mouse.add_subcommand("click", "Move the pointer and click");
  auto options = std::make_shared<MouseOptions>();
  addPosition(*click, *options);
  click->add_option("--button", options->button, "left, right or middle")
      ->capture_default_str()
      ->check(CLI::IsMember({"left", "right", "middle"}));
  click->add_flag("--double", options->twice, "Click twice");
  click->callback([&chosen, options] {
    chosen = [options](Context& context) {
      std::string letter = options->button.substr(0, 1);
      Json more = {{"button", options->button}, {"clicks", options->twice ? 2 : 1}};
      return runMouse(context, *options, options->x, options->y, options->twice ? "double-clicked" : "clicked", more,
                      [&](InputSink& input, int x, int y) {
                        moveSurely(input, x, y);
                        for (int i = 0; i < (options->twice ? 2 : 1); ++i) {
                          input.mouseButton((letter + "bdown").c_str(), x, y);
                          input.mouseButton((letter + "bup").c_str(), x, y);
                        }
                      });
    };
  });
}

void addWheel(CLI::App& mouse, ChosenCommand& chosen) {
  CLI::App* wheel = mouse.add_subcommand("wheel", "Turn the wheel");
  auto options = std::make_shared<MouseOptions>();
  constexpr int kMostNotches = 1000;
  wheel->add_option("NOTCHES", options->notches, "Down when positive, up when negative")
      ->required()
      ->check(CLI::Range(-kMostNotches, kMostNotches));
  wheel->add_option("--at", options->at, "Where the pointer is put for it (default: the middle)")->expected(2);
  wheel->add_option("--screen", options->screen, "The place is in pixels of a target screen of this size");
  wheel->callback([&chosen, options] {
    chosen = [options](Context& context) {
      return runMouse(context, *options, options->at[0], options->at[1],
                      "wheeled " + std::to_string(options->notches) + " at", {{"notches", options->notches}},
                      [&](InputSink& input, int x, int y) {
                        int count = options->notches < 0 ? -options->notches : options->notches;
                        for (int i = 0; i < count; ++i) {
                          input.mouseWheel(x, y, options->notches < 0 ? -1 : 1);
                        }
                      });
    };
  });
}

}  // namespace

void addMouseCommand(CLI::App& app, ChosenCommand& chosen) {
  CLI::App* mouse = app.add_subcommand("mouse", "Move the pointer, click, turn the wheel");
  mouse->require_subcommand(1);
  addMove(*mouse, chosen);
  addClick(*mouse, chosen);
  addWheel(*mouse, chosen);
}

}  // namespace mirn
