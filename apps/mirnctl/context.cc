#include "apps/mirnctl/context.h"

#include <glib.h>

#include "host/main_loop.h"

namespace mirn {
namespace {

gboolean pullNow(gpointer world) {
  static_cast<VirtualWorld*>(world)->unplug();
  return G_SOURCE_REMOVE;
}

gboolean plugNow(gpointer world) {
  static_cast<VirtualWorld*>(world)->replug();
  return G_SOURCE_REMOVE;
}

}  // namespace

Context::Context(const GlobalOptions& options, int descriptor, int error_descriptor)
    : options_(options), report_(descriptor, error_descriptor, options.json) {}

std::optional<int> Context::prepare() {
  if (!options_.use_virtual) {
    return std::nullopt;
  }
  std::string error;
  world_ = VirtualWorld::create(options_.virtual_options, &error);
  if (!world_) {
    return report_.failure(kExitUsage, error);
  }
  scheduleVirtualPlugging();
  return std::nullopt;
}

void Context::scheduleVirtualPlugging() {
  if (options_.pull_after_ms >= 0) {
    g_timeout_add(static_cast<guint>(options_.pull_after_ms), &pullNow, world_);
  }
  if (options_.plug_after_ms >= 0) {
    g_timeout_add(static_cast<guint>(options_.plug_after_ms), &plugNow, world_);
  }
}

Session& Context::session() {
  if (!session_) {
    session_ = std::make_unique<Session>(Release::kKeys);
  }
  return *session_;
}

std::optional<int> Context::needKeyboard() {
  if (!session().isPlugged()) {
    return report_.failure(kExitNotPluggedIn, "No Mirn is plugged in.");
  }
  if (!session().connectKeyboard()) {
    return keyboardTrouble();
  }
  // A program that ends before the release went out would leave held what a crash left held.
  constexpr std::chrono::milliseconds kRelease{2000};
  runLoopUntil([&] { return session().releasesAnswered(); }, kRelease);
  return std::nullopt;
}

int Context::keyboardTrouble() {
  DeviceFacts facts = session().facts();
  if (facts.keyboard_failure == OpenFailure::kPermission) {
    return report_.failure(kExitNoPermission, "No permission to open the keyboard interface: " + facts.keyboard_detail +
                                                  "; \"mirnctl doctor\" says what to do.");
  }
  return report_.failure(kExitDevice, "The Mirn's keyboard interface doesn't answer.");
}

std::optional<int> Context::needPicture(const PictureChoice& format, std::chrono::milliseconds limit,
                                        PixelBufferRef* first) {
  if (!session().isPlugged()) {
    return report_.failure(kExitNotPluggedIn, "No Mirn is plugged in.");
  }
  session().texture();
  if (!session().openPicture()) {
    return pictureTrouble();
  }
  if (!session().setFormat(format)) {
    return formatTrouble(format);
  }
  int width = format.quality == "720P" ? 1280 : 1920;
  PixelBufferRef newest;
  bool came = runLoopUntil(
      [&] {
        newest = session().picture();
        return newest && static_cast<int>(newest->width()) == width;
      },
      limit);
  if (!came) {
    return report_.failure(kExitNoPicture,
                           "No picture came within " + std::to_string(limit.count()) +
                               " ms. Wake the target computer and check the video cable between it and the Mirn.");
  }
  *first = newest;
  return std::nullopt;
}

int Context::formatTrouble(const PictureChoice& wanted) {
  if (!session().pictureRuns()) {
    return pictureTrouble();  // it went meanwhile
  }
  HostSessionStatistics camera = hostSessionStatistics();
  return report_.failure(kExitDevice, "The camera doesn't offer " + describe(wanted) + "; it runs at " +
                                          std::to_string(camera.width) + "x" + std::to_string(camera.height) + " " +
                                          fourCharText(camera.pixelFormat) + ".");
}

int Context::pictureTrouble() {
  DeviceFacts facts = session().facts();
  switch (facts.failure) {
    case OpenFailure::kPermission:
      return report_.failure(kExitNoPermission, "No permission to open the camera: " + facts.failure_detail + ".");
    case OpenFailure::kBusy:
      return report_.failure(kExitBusy, "The camera is busy: " + facts.failure_detail + ".");
    default:
      return report_.failure(kExitNoPicture, facts.failure_detail.empty()
                                                 ? "The Mirn's camera was not found."
                                                 : "The camera can't be opened: " + facts.failure_detail + ".");
  }
}

}  // namespace mirn
