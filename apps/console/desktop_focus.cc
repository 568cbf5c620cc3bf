#include "apps/console/desktop_focus.h"

#include <gdk/gdk.h>

#ifdef MIRN_CONSOLE_X11
#include <gdk/x11/gdkx.h>
#endif

namespace mirn {

#ifdef MIRN_CONSOLE_X11
namespace {

// The focus may be on a child that the toolkit keeps for it.
bool isInside(Display* display, Window inner, Window outer) {
  while (inner != outer) {
    Window root = None;
    Window parent = None;
    Window* children = nullptr;
    unsigned count = 0;
    if (XQueryTree(display, inner, &root, &parent, &children, &count) == 0) {
      return false;  // it has gone meanwhile
    }
    if (children != nullptr) {
      XFree(children);
    }
    if (parent == None || parent == root) {
      return false;
    }
    inner = parent;
  }
  return true;
}

}  // namespace

bool hasDesktopFocus(Gtk::Window& window) {
  GdkSurface* surface = gtk_native_get_surface(GTK_NATIVE(window.gobj()));
  if (surface == nullptr || !GDK_IS_X11_SURFACE(surface)) {
    return window.is_active();
  }
  GdkDisplay* gdk_display = gdk_surface_get_display(surface);
  Display* display = gdk_x11_display_get_xdisplay(gdk_display);
  gdk_x11_display_error_trap_push(gdk_display);
  Window focus = None;
  int revert_to = 0;
  XGetInputFocus(display, &focus, &revert_to);
  // None and "where the pointer is" name no other window.
  bool nobody = focus == None || focus == PointerRoot;
  bool own = nobody || isInside(display, focus, gdk_x11_surface_get_xid(surface));
  gdk_x11_display_error_trap_pop_ignored(gdk_display);
  return own && window.is_active();
}
#else
bool hasDesktopFocus(Gtk::Window& window) {
  return window.is_active();
}
#endif

}  // namespace mirn
