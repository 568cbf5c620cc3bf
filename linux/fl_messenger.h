// The embedding's messenger as the plug-in sees one.
#pragma once

#include <flutter_linux/flutter_linux.h>

#include <functional>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "embedding/binary_messenger.h"

namespace mirn {

// Bound to the platform thread. One for each registration.
//
// A message whose answer is dropped is answered with an empty success once its handler has returned: the embedding logs
// a critical error and leaks its handle for every message that stays unanswered, and the fire-and-forget commands never
// answer. The application doesn't wait for it. A handler that throws has dropped its answer: a warning, and the same.
class FlMessengerAdapter final : public BinaryMessenger {
 public:
  // `messenger` is referenced. `abandoned` is called when the engine has taken the last handler away: at its end, or
  // when another plug-in has registered on the name. The adapter may be destroyed in it.
  FlMessengerAdapter(FlBinaryMessenger* messenger, std::function<void()> abandoned);
  ~FlMessengerAdapter() override;
  FlMessengerAdapter(const FlMessengerAdapter&) = delete;
  FlMessengerAdapter& operator=(const FlMessengerAdapter&) = delete;

  // After the engine's end nothing is sent, and `reply` goes without being called.
  void send(std::string_view channel, std::span<const uint8_t> message,
            std::function<void(std::span<const uint8_t>)> reply) override;
  void setMessageHandler(std::string_view channel, std::shared_ptr<BinaryMessageHandler> handler) override;
  void clearMessageHandler(std::string_view channel, const BinaryMessageHandler* handler) override;

 private:
  struct Slot;
  class Sink;

  static void onMessage(FlBinaryMessenger* messenger, const gchar* channel, GBytes* message,
                        FlBinaryMessengerResponseHandle* response_handle, gpointer slot);
  static void onSlotGone(gpointer slot);
  void slotGone(const std::string& channel, const Slot* slot);

  FlBinaryMessenger* const messenger_;
  std::function<void()> abandoned_;
  std::map<std::string, Slot*> slots_;  // owned by the embedding; its destroy notify takes them out
};

}  // namespace mirn
