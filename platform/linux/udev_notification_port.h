// A notification port over one udev monitor, and the GLib run loop that it is heard on.
#pragma once

#include <glib-unix.h>
#include <glib.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "platform/linux/udev_entry.h"
#include "platform/linux/udev_handles.h"
#include "platform/usb_registry.h"

namespace mirn {

class UdevUsbRegistry;

// A GMainContext of its own with a GMainLoop in it.
class GlibRunLoop : public UsbRunLoop {
 public:
  GlibRunLoop();
  ~GlibRunLoop() override;
  GlibRunLoop(const GlibRunLoop&) = delete;
  GlibRunLoop& operator=(const GlibRunLoop&) = delete;

  void addSource(UsbRunLoopSource& source) override;
  void run() override;
  void stop() override;

 private:
  GMainContext* context_;
  GMainLoop* loop_;
};

// The port's GSource. It keeps the context that it is attached to alive, since a source must not be destroyed while
// another thread gives its context up.
class GlibRunLoopSource : public UsbRunLoopSource {
 public:
  // `ready` is called when the descriptor can be read.
  GlibRunLoopSource(int descriptor, GUnixFDSourceFunc ready, void* user_data);
  ~GlibRunLoopSource() override;
  GlibRunLoopSource(const GlibRunLoopSource&) = delete;
  GlibRunLoopSource& operator=(const GlibRunLoopSource&) = delete;

  void attach(GMainContext* context);

 private:
  GSource* source_;
  GMainContext* context_ = nullptr;
};

// Bound to the thread of its run loop; made and destroyed by others while that one doesn't run.
class UdevNotificationPort : public UsbNotificationPort {
 public:
  // Listens from here on. Null when there is no netlink socket to be had.
  static std::unique_ptr<UdevNotificationPort> create(UdevUsbRegistry& registry);

  UsbRunLoopSource* runLoopSource() override { return source_.get(); }

  // What is attached now. Remembered, so that a loss of events can be made good. False when that failed.
  bool enumerate(std::vector<UdevUsbEntry>* entries);

  void addNotification(UsbNotification type, UsbNotificationCallback callback, void* refcon, UsbIterator iterator);

  // The kernel has dropped events: behind those that still wait, what has changed in sysfs is told in their place.
  // Where sysfs can't be read then, behind the next event.
  void eventsWereLost() { events_lost_ = true; }

 private:
  struct Notification {
    UsbNotification type;
    UsbNotificationCallback callback;
    void* refcon;
    UsbIterator iterator;
  };

  UdevNotificationPort(UdevUsbRegistry& registry, UdevPtr context, UdevMonitorPtr monitor);

  static gboolean onReadable(gint descriptor, GIOCondition condition, gpointer self);
  bool readable() const;
  void receiveEvents();
  void receiveOne();
  void deliver(UsbNotification type, const UdevUsbEntry& entry);
  void makeGoodLostEvents();

  UdevUsbRegistry& registry_;
  UdevPtr context_;
  UdevMonitorPtr monitor_;
  std::unique_ptr<GlibRunLoopSource> source_;
  std::vector<Notification> notifications_;
  std::map<std::string, UdevUsbEntry> attached_;  // by syspath, as far as the events tell
  bool events_lost_ = false;
};

}  // namespace mirn
