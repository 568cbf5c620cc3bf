#include "apps/console/overlay_text.h"

#include <array>
#include <cstdio>

#include "platform/pixel_buffer.h"

namespace mirn {

std::string OverlayText::compose(const OverlayFigures& now) {
  const HostSessionStatistics& session = now.session;
  double seconds = std::chrono::duration<double>(now.at - last_).count();
  last_ = now.at;
  auto rate = [seconds](uint64_t& before, uint64_t count) {
    double per_second = count >= before && seconds > 0 ? static_cast<double>(count - before) / seconds : 0;
    before = count;
    return per_second;
  };
  double captured = rate(captured_, session.framesCaptured);
  double changed = rate(changed_, now.changed);
  double drawn = rate(drawn_, now.drawn);
  if (now.latency) {
    latency_ms_ = std::chrono::duration<double, std::milli>(*now.latency).count();
  }
  std::array<char, 512> text{};
  std::snprintf(text.data(), text.size(),
                "%d x %d  %s  %.0f fps offered\n%.1f pictures/s, %.1f changed/s, %.1f drawn/s\n"
                "dropped: %llu late, %llu damaged\nshown %d x %d\n",
                session.width, session.height, session.open ? fourCharText(session.pixelFormat).c_str() : "no picture",
                session.framesPerSecond, captured, changed, drawn, static_cast<unsigned long long>(session.droppedLate),
                static_cast<unsigned long long>(session.droppedDamaged), now.shown_width, now.shown_height);
  std::string lines = text.data();
  if (latency_ms_ < 0) {
    return lines + "input to picture: no input yet";
  }
  std::snprintf(text.data(), text.size(), "input to picture: %.1f ms", latency_ms_);
  return lines + text.data();
}

}  // namespace mirn
