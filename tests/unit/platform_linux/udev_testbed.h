// Mocked USB devices for tests of the udev registry, and the text of what a port tells about them.
#pragma once

#include <gtest/gtest.h>
#include <umockdev.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>
#include <utility>

#include "platform/linux/udev_notification_port.h"
#include "platform/linux/udev_usb_registry.h"
#include "platform/mirn_identity.h"

namespace mirn {

inline std::string hex(unsigned number, bool padded) {
  char text[16];
  std::snprintf(text, sizeof(text), padded ? "%04x" : "%x", number);
  return text;
}

// Waits for what another thread is about to do. False after ten seconds.
template <typename Condition>
bool comesTrue(Condition condition) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::yield();
  }
  return true;
}

class Testbed {
 public:
  Testbed() : testbed_(umockdev_testbed_new()) {}
  ~Testbed() { g_object_unref(testbed_); }
  Testbed(const Testbed&) = delete;
  Testbed& operator=(const Testbed&) = delete;

  // Makes the device in sysfs and sends its "add".
  void plug(const std::string& name, unsigned vendor, unsigned product) {
    gchar* path = umockdev_testbed_add_device(
        testbed_, "usb", name.c_str(), nullptr, "idVendor", hex(vendor, true).c_str(), "idProduct",
        hex(product, true).c_str(), nullptr, "DEVTYPE", "usb_device", "PRODUCT",
        (hex(vendor, false) + "/" + hex(product, false) + "/100").c_str(), nullptr);
    g_free(path);
  }
  void plugMirn(const std::string& name) { plug(name, g_vid, g_pid); }

  void plugInterface(const std::string& name) {
    gchar* path = umockdev_testbed_add_device(testbed_, "usb", name.c_str(), nullptr, nullptr, "DEVTYPE",
                                              "usb_interface", "PRODUCT", mirnProduct().c_str(), nullptr);
    g_free(path);
  }
  void plugWithoutIdentifiers(const std::string& name) {
    gchar* path =
        umockdev_testbed_add_device(testbed_, "usb", name.c_str(), nullptr, nullptr, "DEVTYPE", "usb_device", nullptr);
    g_free(path);
  }
  void plugWithAttributesOnly(const std::string& name) {
    gchar* path =
        umockdev_testbed_add_device(testbed_, "usb", name.c_str(), nullptr, "idVendor", hex(g_vid, true).c_str(),
                                    "idProduct", hex(g_pid, true).c_str(), nullptr, "DEVTYPE", "usb_device", nullptr);
    g_free(path);
  }

  // Another device in the place of one that is there, without an event.
  void exchange(const std::string& name, unsigned vendor, unsigned product) {
    const std::string path = "/sys/devices/" + name;
    const std::string identifiers = hex(vendor, false) + "/" + hex(product, false) + "/100";
    umockdev_testbed_set_attribute(testbed_, path.c_str(), "idVendor", hex(vendor, true).c_str());
    umockdev_testbed_set_attribute(testbed_, path.c_str(), "idProduct", hex(product, true).c_str());
    umockdev_testbed_set_property(testbed_, path.c_str(), "PRODUCT", identifiers.c_str());
  }

  void event(const std::string& name, const char* action) {
    umockdev_testbed_uevent(testbed_, ("/sys/devices/" + name).c_str(), action);
  }
  // As unplug(), without the event.
  void vanish(const std::string& name) {
    gchar* root = umockdev_testbed_get_root_dir(testbed_);
    const std::string link = std::string(root) + "/sys/bus/usb/devices/" + name;
    g_free(root);
    ASSERT_EQ(::unlink(link.c_str()), 0) << link;
    umockdev_testbed_remove_device(testbed_, ("/sys/devices/" + name).c_str());
  }
  // In the kernel's order: the bus loses its link, "remove" goes out, then the device leaves sysfs.
  void unplug(const std::string& name) {
    gchar* root = umockdev_testbed_get_root_dir(testbed_);
    const std::string link = std::string(root) + "/sys/bus/usb/devices/" + name;
    g_free(root);
    ASSERT_EQ(::unlink(link.c_str()), 0) << link;
    event(name, "remove");
    umockdev_testbed_remove_device(testbed_, ("/sys/devices/" + name).c_str());
  }

  static std::string mirnProduct() { return hex(g_vid, false) + "/" + hex(g_pid, false) + "/100"; }

 private:
  UMockdevTestbed* testbed_;
};

// What a port tells, as text: "+" and the place of each arrival, "-" and that of each removal.
class PortDiary {
 public:
  explicit PortDiary(UdevUsbRegistry& registry) : registry_(registry), port_(UdevNotificationPort::create(registry)) {
    loop_ = registry_.currentRunLoop();
    loop_->addSource(*port_->runLoopSource());
    const auto arrived = [](void* self, UsbIterator iterator) { static_cast<PortDiary*>(self)->note('+', iterator); };
    const auto gone = [](void* self, UsbIterator iterator) { static_cast<PortDiary*>(self)->note('-', iterator); };
    EXPECT_EQ(registry_.addMatchingNotification(*port_, UsbNotification::kMatched,
                                                registry_.createMatching(kUsbDeviceClass), arrived, this, &added_),
              0);
    note('=', added_);  // what is there already
    EXPECT_EQ(registry_.addMatchingNotification(*port_, UsbNotification::kTerminate,
                                                registry_.createMatching(kUsbDeviceClass), gone, this, &removed_),
              0);
  }
  ~PortDiary() {
    registry_.release(added_);
    registry_.release(removed_);
  }
  PortDiary(const PortDiary&) = delete;
  PortDiary& operator=(const PortDiary&) = delete;

  UdevNotificationPort& port() { return *port_; }
  // Runs until an entry with that product identifier was told in that way.
  std::string upTo(const std::string& last) {
    last_ = last;
    loop_->run();
    return std::exchange(text_, "");
  }

 private:
  void note(char what, UsbIterator iterator) {
    while (const UsbService service = registry_.iteratorNext(iterator)) {
      UsbValue product = int64_t{-1};
      registry_.createProperties(service)->valueIfPresent(kUsbProductKey, &product);
      registry_.release(service);
      if (what == '=') continue;
      const std::string entry = what + std::to_string(std::get<int64_t>(product));
      text_ += entry;
      if (entry == last_) loop_->stop();
    }
  }

  UdevUsbRegistry& registry_;
  std::unique_ptr<UdevNotificationPort> port_;
  std::shared_ptr<UsbRunLoop> loop_;
  UsbIterator added_ = 0;
  UsbIterator removed_ = 0;
  std::string last_;
  std::string text_;
};

}  // namespace mirn
