// Who really has the desktop's keyboard focus.
#pragma once

#include <gtkmm/window.h>

namespace mirn {

// False while a window of somebody else has the focus. Under X11 inhibiting the desktop's shortcuts grabs the keyboard,
// and as long as that lasts the toolkit calls the grabbing window active, wherever the focus has gone; so the display
// itself is asked, which takes one exchange with it, or two. Elsewhere the toolkit knows. Main thread.
bool hasDesktopFocus(Gtk::Window& window);

}  // namespace mirn
