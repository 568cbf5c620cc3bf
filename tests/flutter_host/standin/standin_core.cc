#include "standin/standin_core.h"

#include <utility>

namespace mirn {
namespace {

std::atomic<uint64_t> g_criticals{0};
std::atomic<uint64_t> g_warnings{0};

gboolean runPosted(gpointer data) {
  (*static_cast<std::function<void()>*>(data))();
  return G_SOURCE_REMOVE;
}

}  // namespace

void StandinCore::post(std::function<void()> task) {
  // Tasks of one delay and priority run in the order of posting.
  g_timeout_add_full(G_PRIORITY_DEFAULT, 1, runPosted, new std::function<void()>(std::move(task)),
                     [](gpointer data) { delete static_cast<std::function<void()>*>(data); });
}

void StandinCore::rasterLoop() {
  std::unique_lock lock(mutex);
  while (true) {
    wake.wait(lock, [this] { return stopping || !raster_tasks.empty(); });
    if (raster_tasks.empty()) {
      return;
    }
    const std::function<void()> task = std::move(raster_tasks.front());
    raster_tasks.pop_front();
    lock.unlock();
    task();
    lock.lock();
  }
}

Painted StandinCore::paintNow(int64_t id) {
  Painted painted;
  FlTexture* texture = nullptr;
  {
    const std::lock_guard guard(mutex);
    const auto found = textures.find(id);
    if (found == textures.end()) {
      painted.error = "Unable to find texture";
      return painted;
    }
    if (found->second.cached) {
      return painted;
    }
    found->second.cached = true;
    texture = found->second.object;  // without a reference
  }
  if (looked_up != nullptr) {
    looked_up();
  }
  const uint8_t* buffer = nullptr;
  uint32_t width = 100;  // the size of the layer, which the texture may ignore
  uint32_t height = 100;
  GError* error = nullptr;
  auto* pixels = reinterpret_cast<FlPixelBufferTexture*>(texture);
  if (FL_PIXEL_BUFFER_TEXTURE_GET_CLASS(pixels)->copy_pixels(pixels, &buffer, &width, &height, &error) == FALSE) {
    painted.error = error->message;  // without looking whether there is one
    g_error_free(error);
    const std::lock_guard guard(mutex);
    if (const auto found = textures.find(id); found != textures.end()) {
      found->second.cached = false;
    }
    return painted;
  }
  if (returned != nullptr) {
    returned();
  }
  painted.drawn = true;
  painted.width = width;
  painted.height = height;
  painted.rgba.assign(buffer, buffer + static_cast<size_t>(width) * height * 4);
  return painted;
}

void StandinCore::stopRaster() {
  {
    const std::lock_guard guard(mutex);
    stopping = true;
  }
  wake.notify_all();
  if (raster.joinable()) {
    raster.join();
  }
}

void StandinCore::shutdownMessenger() {
  while (!handlers.empty()) {
    const Handler handler = handlers.begin()->second;
    handlers.erase(handlers.begin());
    if (handler.destroy != nullptr) {
      handler.destroy(handler.user_data);
    }
  }
}

void StandinCore::shutdownTextures() {
  std::map<int64_t, Texture> leaving;
  {
    const std::lock_guard guard(mutex);
    leaving.swap(textures);
  }
  for (const auto& [id, texture] : leaving) {
    g_object_unref(texture.object);
  }
}

void watchGlibLog() {
  static std::once_flag installed;  // GLib takes a writer once in a process
  std::call_once(installed, [] {
    g_log_set_writer_func(
        [](GLogLevelFlags level, const GLogField* fields, gsize count, gpointer) {
          g_criticals += (level & G_LOG_LEVEL_CRITICAL) != 0 ? 1 : 0;
          g_warnings += (level & G_LOG_LEVEL_WARNING) != 0 ? 1 : 0;
          return g_log_writer_standard_streams(level, fields, count, nullptr);
        },
        nullptr, nullptr);
  });
  g_criticals = 0;
  g_warnings = 0;
}

uint64_t glibCriticals() {
  return g_criticals;
}

uint64_t glibWarnings() {
  return g_warnings;
}

}  // namespace mirn
