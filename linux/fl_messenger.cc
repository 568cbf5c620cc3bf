#include "linux/fl_messenger.h"

#include <exception>
#include <utility>

#include "embedding/standard_codec.h"

namespace mirn {
namespace {

std::span<const uint8_t> view(GBytes* bytes) {
  gsize size = 0;
  const auto* data = static_cast<const uint8_t*>(g_bytes_get_data(bytes, &size));
  return {data, size};
}

void respond(FlBinaryMessenger* messenger, FlBinaryMessengerResponseHandle* handle, std::span<const uint8_t> reply) {
  g_autoptr(GBytes) bytes = g_bytes_new(reply.data(), reply.size());
  g_autoptr(GError) error = nullptr;
  if (fl_binary_messenger_send_response(messenger, handle, bytes, &error) == FALSE) {
    // The embedding may fail without saying why.
    g_warning("flutter_mirn: a reply could not be sent: %s", error != nullptr ? error->message : "no reason given");
  }
}

// What waits for the application's answer to a message of ours.
using ReplyFunction = std::function<void(std::span<const uint8_t>)>;

constexpr char kReplyKey[] = "flutter-mirn-reply";

void onSent(GObject* messenger, GAsyncResult* result, gpointer cancellable) {
  const auto& reply = *static_cast<ReplyFunction*>(g_object_get_data(static_cast<GObject*>(cancellable), kReplyKey));
  g_autoptr(GError) error = nullptr;
  g_autoptr(GBytes) bytes =
      fl_binary_messenger_send_on_channel_finish(reinterpret_cast<FlBinaryMessenger*>(messenger), result, &error);
  reply(bytes != nullptr ? view(bytes) : std::span<const uint8_t>());
}

}  // namespace

// What the embedding keeps for one channel.
struct FlMessengerAdapter::Slot {
  FlMessengerAdapter* adapter;  // null once the adapter is gone
  std::string channel;
  std::shared_ptr<BinaryMessageHandler> handler;
};

// One message of the application that waits for its answer.
class FlMessengerAdapter::Sink final : public BinaryReplySink {
 public:
  Sink(FlBinaryMessenger* messenger, FlBinaryMessengerResponseHandle* handle)
      : messenger_(static_cast<FlBinaryMessenger*>(g_object_ref(messenger))),
        handle_(static_cast<FlBinaryMessengerResponseHandle*>(g_object_ref(handle))) {}
  Sink(const Sink&) = delete;
  Sink& operator=(const Sink&) = delete;

  void answered(std::span<const uint8_t> reply) override { finish(reply); }

  void dropped() override {
    if (in_handler_) {
      dropped_ = true;  // handlerReturned() answers
    } else {
      finishEmpty();
    }
  }

  // Call it once, right after the handler. The sink may be gone afterwards.
  static void handlerReturned(Sink* sink, bool* finished) {
    if (*finished) {
      return;
    }
    sink->in_handler_ = false;
    sink->finished_ = nullptr;
    if (sink->dropped_) {
      sink->finishEmpty();
    }
  }

  // `*finished` becomes true when the sink ends before handlerReturned().
  void tell(bool* finished) { finished_ = finished; }

 private:
  ~Sink() {
    g_object_unref(handle_);
    g_object_unref(messenger_);
  }

  void finish(std::span<const uint8_t> reply) {
    respond(messenger_, handle_, reply);
    if (finished_ != nullptr) {
      *finished_ = true;
    }
    delete this;
  }

  void finishEmpty() { finish(encodeSuccess(Value())); }

  FlBinaryMessenger* const messenger_;
  FlBinaryMessengerResponseHandle* const handle_;
  bool in_handler_ = true;
  bool dropped_ = false;
  bool* finished_ = nullptr;
};

FlMessengerAdapter::FlMessengerAdapter(FlBinaryMessenger* messenger, std::function<void()> abandoned)
    : messenger_(static_cast<FlBinaryMessenger*>(g_object_ref(messenger))), abandoned_(std::move(abandoned)) {}

FlMessengerAdapter::~FlMessengerAdapter() {
  abandoned_ = nullptr;
  while (!slots_.empty()) {
    const auto [channel, slot] = *slots_.begin();
    slots_.erase(slots_.begin());
    slot->adapter = nullptr;
    fl_binary_messenger_set_message_handler_on_channel(messenger_, channel.c_str(), nullptr, nullptr, nullptr);
  }
  g_object_unref(messenger_);
}

void FlMessengerAdapter::send(std::string_view channel, std::span<const uint8_t> message,
                              std::function<void(std::span<const uint8_t>)> reply) {
  g_autoptr(GBytes) bytes = g_bytes_new(message.data(), message.size());
  const std::string name(channel);
  if (reply == nullptr) {
    fl_binary_messenger_send_on_channel(messenger_, name.c_str(), bytes, nullptr, nullptr, nullptr);
  } else {
    // Nobody cancels it: it only carries the function. The message's task holds it up to the callback, and without an
    // engine, where there is neither, both go right here.
    g_autoptr(GCancellable) carrier = g_cancellable_new();
    g_object_set_data_full(G_OBJECT(carrier), kReplyKey, new ReplyFunction(std::move(reply)),
                           [](gpointer function) { delete static_cast<ReplyFunction*>(function); });
    fl_binary_messenger_send_on_channel(messenger_, name.c_str(), bytes, carrier, onSent, carrier);
  }
}

void FlMessengerAdapter::setMessageHandler(std::string_view channel, std::shared_ptr<BinaryMessageHandler> handler) {
  const std::string name(channel);
  auto* slot = new Slot{this, name, std::move(handler)};
  slots_[name] = slot;  // before the call: it may tell of the end of the old slot, and even of this one
  fl_binary_messenger_set_message_handler_on_channel(messenger_, name.c_str(), onMessage, slot, onSlotGone);
}

void FlMessengerAdapter::clearMessageHandler(std::string_view channel, const BinaryMessageHandler* handler) {
  const auto found = slots_.find(std::string(channel));
  if (found == slots_.end() || found->second->handler.get() != handler) {
    return;
  }
  const std::string name = found->first;
  found->second->adapter = nullptr;  // this end is our own wish: nobody is told
  slots_.erase(found);
  fl_binary_messenger_set_message_handler_on_channel(messenger_, name.c_str(), nullptr, nullptr, nullptr);
}

void FlMessengerAdapter::onMessage(FlBinaryMessenger* messenger, const gchar* /*channel*/, GBytes* message,
                                   FlBinaryMessengerResponseHandle* response_handle, gpointer slot) {
  // The slot may end while its handler runs.
  const std::shared_ptr<BinaryMessageHandler> handler = static_cast<Slot*>(slot)->handler;
  g_autoptr(GBytes) kept = g_bytes_ref(message);
  auto* sink = new Sink(messenger, response_handle);
  bool finished = false;
  sink->tell(&finished);
  // Nothing may unwind through the embedding, which is C. The reply is dropped by the time of the catch.
  try {
    handler->onMessage(view(kept), BinaryReply(sink));
  } catch (const std::exception& failure) {
    g_warning("flutter_mirn: a message handler failed: %s", failure.what());
  } catch (...) {
    g_warning("flutter_mirn: a message handler failed");
  }
  Sink::handlerReturned(sink, &finished);
}

void FlMessengerAdapter::onSlotGone(gpointer user_data) {
  const std::unique_ptr<Slot> slot(static_cast<Slot*>(user_data));
  if (slot->adapter != nullptr) {
    slot->adapter->slotGone(slot->channel, slot.get());
  }
}

void FlMessengerAdapter::slotGone(const std::string& channel, const Slot* slot) {
  const auto found = slots_.find(channel);
  if (found == slots_.end() || found->second != slot) {
    return;  // replaced by a newer one of ours
  }
  slots_.erase(found);
  if (slots_.empty() && abandoned_ != nullptr) {
    const std::function<void()> abandoned = abandoned_;  // the adapter may go in it
    abandoned();
  }
}

}  // namespace mirn
