// The engine behind the stand-in of the Flutter Linux interface: what the tests need of it, with the traps that the
// real one has.
#pragma once

#include <flutter_linux/flutter_linux.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace mirn {

using MessageBytes = std::vector<uint8_t>;

// One paint of one texture, as the raster thread saw it.
struct Painted {
  bool drawn = false;
  uint32_t width = 0;
  uint32_t height = 0;
  MessageBytes rgba;  // what was uploaded: width * height * 4 bytes
  std::string error;  // where nothing was drawn although the texture was asked
};

// Bound to the platform thread (the default main context), except where a call says otherwise.
class StandinEngine {
 public:
  // What came of a message: the reply's bytes (none = not implemented), or nothing when the last reference to its
  // handle was dropped unanswered.
  using Reply = std::function<void(const std::optional<MessageBytes>& reply)>;
  using DartHandler = std::function<MessageBytes(const MessageBytes& message)>;

  // Messages are delivered either way; textures are refused until start() unless it has `started`.
  explicit StandinEngine(bool started = true);
  ~StandinEngine();  // shuts down
  StandinEngine(const StandinEngine&) = delete;
  StandinEngine& operator=(const StandinEngine&) = delete;

  // Borrowed.
  FlPluginRegistry* registry();
  void start();
  // Joins the raster thread, calls the handlers' destroy notifies, drops the textures: in this order.
  void shutdown();

  // From the application to the plug-in, as a task of the main loop, in order; the reply follows as a later one.
  void send(const std::string& channel, MessageBytes message, Reply reply);
  // Serves what native code sends on a channel.
  void setDartHandler(const std::string& channel, DartHandler handler);

  size_t handlers() const;
  std::vector<std::string> channels() const;  // that have a handler
  // Registered and not unregistered; any thread.
  size_t textures() const;
  uint64_t responsesSent() const;  // any thread
  uint64_t unansweredHandles() const;

  // Draws a texture on the raster thread: asks for pixels when there is no cached picture (first paint, or marked
  // since), without holding a reference to the texture meanwhile. Waits for it unless `done` is given, which is then
  // called on the raster thread.
  Painted paint(int64_t id);
  void paintLater(int64_t id, std::function<void(const Painted&)> done);
  // Called on the raster thread while a paint is underway: after the texture was looked up, and after its pixels were
  // returned but before they are read. Set while no paint runs.
  void setPaintHooks(std::function<void()> looked_up, std::function<void()> returned);

 private:
  friend struct StandinCore;
  std::shared_ptr<struct StandinCore> core_;
};

// Counts lines of GLib's log from now on, by level, beginning with none; the lines still appear. Process-wide, any
// thread.
void watchGlibLog();
uint64_t glibCriticals();
uint64_t glibWarnings();

}  // namespace mirn
