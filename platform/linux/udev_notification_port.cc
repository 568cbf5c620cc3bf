#include "platform/linux/udev_notification_port.h"

#include <poll.h>

#include <cerrno>
#include <string_view>
#include <utility>

#include "platform/linux/udev_usb_registry.h"

namespace mirn {

namespace {

// Room for some thousand events while the thread is not scheduled. Beyond that the kernel drops events and says so.
constexpr int kReceiveBufferBytes = 4 * 1024 * 1024;

// Events handled before other sources of the loop get their turn.
constexpr int kEventsPerDispatch = 64;

}  // namespace

GlibRunLoop::GlibRunLoop() : context_(g_main_context_new()), loop_(g_main_loop_new(context_, FALSE)) {}

GlibRunLoop::~GlibRunLoop() {
  g_main_loop_unref(loop_);
  g_main_context_unref(context_);
}

void GlibRunLoop::addSource(UsbRunLoopSource& source) {
  static_cast<GlibRunLoopSource&>(source).attach(context_);
}

void GlibRunLoop::run() {
  g_main_loop_run(loop_);
}

void GlibRunLoop::stop() {
  // g_main_loop_quit before g_main_loop_run would be forgotten; a source waits until the loop runs.
  GSource* quit = g_idle_source_new();
  g_source_set_priority(quit, G_PRIORITY_HIGH);
  g_source_set_callback(
      quit,
      [](gpointer loop) -> gboolean {
        g_main_loop_quit(static_cast<GMainLoop*>(loop));
        return G_SOURCE_REMOVE;
      },
      loop_, nullptr);
  g_source_attach(quit, context_);
  g_source_unref(quit);
}

GlibRunLoopSource::GlibRunLoopSource(int descriptor, GUnixFDSourceFunc ready, void* user_data)
    : source_(g_unix_fd_source_new(descriptor, static_cast<GIOCondition>(G_IO_IN | G_IO_ERR))) {
  // GLib's way to pass a callback with more parameters than GSourceFunc has.
  g_source_set_callback(source_, G_SOURCE_FUNC(ready), user_data, nullptr);
}

GlibRunLoopSource::~GlibRunLoopSource() {
  g_source_destroy(source_);
  g_source_unref(source_);
  if (context_ != nullptr) g_main_context_unref(context_);
}

void GlibRunLoopSource::attach(GMainContext* context) {
  if (context_ != nullptr) return;
  context_ = g_main_context_ref(context);
  g_source_attach(source_, context);
}

std::unique_ptr<UdevNotificationPort> UdevNotificationPort::create(UdevUsbRegistry& registry) {
  UdevPtr context(udev_new());
  if (context == nullptr) return nullptr;
  // "kernel" and not "udev": nothing here needs what the daemon adds, and without a daemon "udev" stays silent.
  UdevMonitorPtr monitor(udev_monitor_new_from_netlink(context.get(), "kernel"));
  if (monitor == nullptr) return nullptr;
  if (udev_monitor_filter_add_match_subsystem_devtype(monitor.get(), "usb", "usb_device") < 0) return nullptr;
  udev_monitor_set_receive_buffer_size(monitor.get(), kReceiveBufferBytes);  // refused to some: then it is smaller
  if (udev_monitor_enable_receiving(monitor.get()) < 0) return nullptr;
  return std::unique_ptr<UdevNotificationPort>(
      new UdevNotificationPort(registry, std::move(context), std::move(monitor)));
}

UdevNotificationPort::UdevNotificationPort(UdevUsbRegistry& registry, UdevPtr context, UdevMonitorPtr monitor)
    : registry_(registry),
      context_(std::move(context)),
      monitor_(std::move(monitor)),
      source_(std::make_unique<GlibRunLoopSource>(udev_monitor_get_fd(monitor_.get()), onReadable, this)) {}

bool UdevNotificationPort::enumerate(std::vector<UdevUsbEntry>* entries) {
  std::optional<std::vector<UdevUsbEntry>> found = enumerateUsbDevices(context_.get());
  if (!found) return false;
  for (const UdevUsbEntry& entry : *found) attached_[entry.syspath] = entry;
  *entries = std::move(*found);
  return true;
}

void UdevNotificationPort::addNotification(UsbNotification type, UsbNotificationCallback callback, void* refcon,
                                           UsbIterator iterator) {
  notifications_.push_back({type, callback, refcon, iterator});
}

gboolean UdevNotificationPort::onReadable(gint /*descriptor*/, GIOCondition /*condition*/, gpointer self) {
  static_cast<UdevNotificationPort*>(self)->receiveEvents();
  return G_SOURCE_CONTINUE;
}

bool UdevNotificationPort::readable() const {
  pollfd waiting{udev_monitor_get_fd(monitor_.get()), POLLIN, 0};
  return poll(&waiting, 1, 0) > 0;
}

void UdevNotificationPort::receiveEvents() {
  for (int count = 0; count < kEventsPerDispatch && readable(); ++count) receiveOne();
  // Only when the queue is empty: what still stands in it is older than what sysfs shows.
  if (events_lost_ && !readable()) makeGoodLostEvents();
}

void UdevNotificationPort::receiveOne() {
  errno = 0;
  const UdevDevicePtr device(udev_monitor_receive_device(monitor_.get()));
  if (device == nullptr) {
    if (errno == ENOBUFS) eventsWereLost();
    return;  // else: an event of something else, or a message that is no event
  }
  const char* action = udev_device_get_action(device.get());
  if (action == nullptr) return;
  // bind, unbind, change, move and whatever comes after them are no arrivals and no removals.
  const UdevUsbEntry entry = readUsbEntry(device.get());
  if (std::string_view(action) == "add") {
    attached_[entry.syspath] = entry;
    deliver(UsbNotification::kMatched, entry);
  } else if (std::string_view(action) == "remove") {
    attached_.erase(entry.syspath);
    deliver(UsbNotification::kTerminate, entry);
  }
}

void UdevNotificationPort::deliver(UsbNotification type, const UdevUsbEntry& entry) {
  for (const Notification& notification : notifications_) {
    if (notification.type != type) continue;
    registry_.append(notification.iterator, entry);
    notification.callback(notification.refcon, notification.iterator);
  }
}

void UdevNotificationPort::makeGoodLostEvents() {
  const std::map<std::string, UdevUsbEntry> before = std::exchange(attached_, {});
  std::vector<UdevUsbEntry> now;
  if (!enumerate(&now)) {
    attached_ = before;
    return;  // still lost: the next event is the next chance
  }
  events_lost_ = false;
  const auto differs = [](const std::map<std::string, UdevUsbEntry>& others, const UdevUsbEntry& entry) {
    const auto there = others.find(entry.syspath);
    return there == others.end() || there->second != entry;
  };
  // Removals first: where one device went and another came, the last word is who is there. Another device on the same
  // port is both.
  for (const auto& [syspath, entry] : before) {
    if (differs(attached_, entry)) deliver(UsbNotification::kTerminate, entry);
  }
  for (const UdevUsbEntry& entry : now) {
    if (differs(before, entry)) deliver(UsbNotification::kMatched, entry);
  }
}

}  // namespace mirn
