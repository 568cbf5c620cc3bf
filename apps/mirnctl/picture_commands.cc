// snapshot, quality, color.
#include <cmath>
#include <memory>

#include "apps/common/png_file.h"
#include "apps/common/program_start.h"
#include "apps/mirnctl/commands.h"

namespace mirn {
namespace {

struct PictureOptions {
  std::string file;
  std::string quality = "1080P";
  std::string color = "normal";
  int timeout_ms = 5000;

  PictureChoice format() const { return {quality, color == "best"}; }
  std::chrono::milliseconds limit() const { return std::chrono::milliseconds(timeout_ms); }
};

void addPictureOptions(CLI::App& command, PictureOptions& options, bool quality, bool color) {
  if (quality) {
    command.add_option("--quality", options.quality, "720P or 1080P")
        ->capture_default_str()
        ->check(CLI::IsMember({"720P", "1080P"}));
  }
  if (color) {
    command.add_option("--color", options.color, "normal or best")
        ->capture_default_str()
        ->check(CLI::IsMember({"normal", "best"}));
  }
  constexpr int kLongest = 600000;
  command.add_option("--timeout", options.timeout_ms, "Longest wait for a picture in milliseconds")
      ->capture_default_str()
      ->check(CLI::Range(1, kLongest));
}

int runSnapshot(Context& context, const PictureOptions& options) {
  PixelBufferRef picture;
  if (auto trouble = context.needPicture(options.format(), options.limit(), &picture)) {
    return *trouble;
  }
  if (options.file == "-") {
    if (context.report().json()) {
      return context.report().failure(kExitUsage, "--json and a picture on standard output don't go together.");
    }
    std::vector<uint8_t> png = encodePng(picture);
    bool whole = writeAll(context.report().descriptor(), std::string(png.begin(), png.end()));
    return whole ? kExitOk : context.report().failure(kExitData, "Can't write to standard output.");
  }
  std::string error;
  if (!writePng(picture, options.file, &error)) {
    return context.report().failure(kExitData, error);
  }
  std::string size = std::to_string(picture->width()) + "x" + std::to_string(picture->height());
  return context.report().success(options.file + ": " + size + "\n",
                                  {{"file", options.file}, {"width", picture->width()}, {"height", picture->height()}});
}

// What the camera runs at, after a picture of the wanted size came.
int reportFormat(Context& context, const PictureOptions& options) {
  PixelBufferRef picture;
  if (auto trouble = context.needPicture(options.format(), options.limit(), &picture)) {
    return *trouble;
  }
  HostSessionStatistics session = hostSessionStatistics();
  std::string format = fourCharText(session.pixelFormat);
  auto rate = std::lround(session.framesPerSecond);
  return context.report().success("quality  " + options.quality + "\ncolor    " + options.color + "\nsize     " +
                                      std::to_string(picture->width()) + "x" + std::to_string(picture->height()) +
                                      "\nformat   " + format + "\nrate     " + std::to_string(rate) + "\n",
                                  {{"quality", options.quality},
                                   {"color", options.color},
                                   {"width", picture->width()},
                                   {"height", picture->height()},
                                   {"format", format},
                                   {"rate", rate}});
}

}  // namespace

void addSnapshotCommand(CLI::App& app, ChosenCommand& chosen) {
  CLI::App* command = app.add_subcommand("snapshot", "Save what the target shows as a PNG file");
  auto options = std::make_shared<PictureOptions>();
  command->add_option("FILE", options->file, "The PNG file; - for standard output")->required();
  addPictureOptions(*command, *options, true, true);
  command->callback(
      [&chosen, options] { chosen = [options](Context& context) { return runSnapshot(context, *options); }; });
}

void addQualityCommand(CLI::App& app, ChosenCommand& chosen) {
  CLI::App* command = app.add_subcommand("quality", "Switch to a picture size and show what the camera then delivers");
  auto options = std::make_shared<PictureOptions>();
  command->add_option("QUALITY", options->quality, "720P or 1080P")
      ->required()
      ->check(CLI::IsMember({"720P", "1080P"}));
  addPictureOptions(*command, *options, false, true);
  command->callback(
      [&chosen, options] { chosen = [options](Context& context) { return reportFormat(context, *options); }; });
}

void addColorCommand(CLI::App& app, ChosenCommand& chosen) {
  CLI::App* command = app.add_subcommand("color", "Switch to a colour quality and show what the camera then delivers");
  auto options = std::make_shared<PictureOptions>();
  command->add_option("COLOR", options->color, "normal or best")->required()->check(CLI::IsMember({"normal", "best"}));
  addPictureOptions(*command, *options, true, false);
  command->callback(
      [&chosen, options] { chosen = [options](Context& context) { return reportFormat(context, *options); }; });
}

}  // namespace mirn
