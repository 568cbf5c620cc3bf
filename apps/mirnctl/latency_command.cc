#include <array>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <memory>

#include "apps/common/input_echo.h"
#include "apps/common/latency_histogram.h"
#include "apps/common/picture_change.h"
#include "apps/common/pointer_map.h"
#include "apps/common/pointer_rest.h"
#include "apps/mirnctl/commands.h"
#include "host/main_loop.h"

namespace mirn {
namespace {

using Steady = std::chrono::steady_clock;

struct LatencyOptions {
  int count = 50;
  std::string quality = "1080P";
  std::string color = "normal";
  bool answers_only = false;
};

LatencyHistogram measureAnswers(Context& context, int count) {
  LatencyHistogram histogram;
  for (int i = 0; i < count; ++i) {
    Steady::time_point start = Steady::now();
    if (context.session().info()) {
      histogram.add(Steady::now() - start);
    }
  }
  return histogram;
}

LatencyHistogram measurePictures(Context& context, int count, InputEcho& echo) {
  constexpr std::chrono::milliseconds kPatience{1000};
  LatencyHistogram histogram;
  for (int i = 0; i < count; ++i) {
    int place = i % 2 == 0 ? kFullScale / 4 : kFullScale * 3 / 4;
    // A different moment within the frame interval each time, or all samples would share one phase.
    runLoopFor(std::chrono::milliseconds(20 + i % 17));
    echo.reset();
    echo.sent();
    for (int move = 0; move < PointerRest::kMovesToBeSure; ++move) {
      context.session().input().mouseMove(place, place);
    }
    std::optional<std::chrono::nanoseconds> time;
    runLoopUntil(
        [&] {
          time = echo.takeOutcome();
          return time.has_value();
        },
        kPatience);
    if (time) {
      histogram.add(*time);
    }
  }
  return histogram;
}

Json histogramFields(const LatencyHistogram& histogram) {
  Json buckets = Json::array();
  for (const LatencyHistogram::Bucket& bucket : histogram.buckets()) {
    buckets.push_back(
        {{"upto_ms", std::isfinite(bucket.upto_ms) ? Json(bucket.upto_ms) : Json(nullptr)}, {"count", bucket.count}});
  }
  return {{"count", histogram.count()},         {"mean_ms", histogram.mean()},     {"p50_ms", histogram.quantile(0.5)},
          {"p95_ms", histogram.quantile(0.95)}, {"max_ms", histogram.quantile(1)}, {"buckets", buckets}};
}

std::string histogramText(const std::string& title, const LatencyHistogram& histogram) {
  std::array<char, 128> head{};
  std::snprintf(head.data(), head.size(), ": %zu samples, mean %.2f ms, p50 %.2f, p95 %.2f, max %.2f\n",
                histogram.count(), histogram.mean(), histogram.quantile(0.5), histogram.quantile(0.95),
                histogram.quantile(1));
  return title + head.data() + histogram.bars();
}

int runLatency(Context& context, const LatencyOptions& options) {
  if (auto trouble = context.needKeyboard()) {
    return *trouble;
  }
  LatencyHistogram answers = measureAnswers(context, options.count);
  if (answers.count() == 0) {
    return context.report().failure(kExitDevice, "The Mirn doesn't answer.");
  }
  std::string text = histogramText("device answers", answers);
  Json fields = {{"answers", histogramFields(answers)}};
  if (options.answers_only) {
    return context.report().success(text, fields);
  }
  PixelBufferRef first;
  if (auto trouble = context.needPicture({options.quality, options.color == "best"}, std::chrono::seconds(5), &first)) {
    return *trouble;
  }
  if (keyboardIsElsewhere()) {
    return context.report().failure(kExitDevice,
                                    "The picture and the keyboard interface belong to two devices: the pointer of a "
                                    "computer that is not on the screen would move.",
                                    fields);
  }
  auto echo = std::make_shared<InputEcho>();
  auto change = std::make_shared<PictureChange>();
  context.session().engine().setFrameListener([echo, change](int64_t /*id*/, const PixelBufferRef& picture) {
    if (change->changed(picture)) {
      echo->changedPicture(picture);
    }
  });
  LatencyHistogram pictures = measurePictures(context, options.count, *echo);
  context.session().engine().setFrameListener({});
  if (pictures.count() == 0) {
    return context.report().failure(kExitNoPicture, "No picture showed the pointer's moves.", fields);
  }
  fields["input_to_picture"] = histogramFields(pictures);
  fields["judged_by"] = echo->judgedByStrip() ? "strip" : "pixels";
  return context.report().success(text + histogramText("input to picture", pictures), fields);
}

}  // namespace

void addLatencyCommand(CLI::App& app, ChosenCommand& chosen) {
  CLI::App* command = app.add_subcommand(
      "latency", "Measure how long the device's answers take, and how long a pointer move takes to be seen");
  auto options = std::make_shared<LatencyOptions>();
  command->add_option("--count", options->count, "Samples of each kind")
      ->capture_default_str()
      ->check(CLI::Range(1, 100000));
  command->add_option("--quality", options->quality, "720P or 1080P")
      ->capture_default_str()
      ->check(CLI::IsMember({"720P", "1080P"}));
  command->add_option("--color", options->color, "normal or best")
      ->capture_default_str()
      ->check(CLI::IsMember({"normal", "best"}));
  command->add_flag("--answers-only", options->answers_only, "Leave the picture alone");
  command->callback(
      [&chosen, options] { chosen = [options](Context& context) { return runLatency(context, *options); }; });
}

}  // namespace mirn
