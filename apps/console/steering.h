// Steering of a virtual console from outside: one command a line on standard input, one line of JSON for each on the
// real standard output. For tests and demonstrations; it acts on the virtual device and reads the window's state.
//
//   unplug [N] | plug [N]    the plug of the virtual Mirn number N, from 1; without a number the first one's
//   busy [N] | free [N]      another program holds its camera, or lets it go;  deny [N] | allow [N]  the user may not,
//                            or may, open it
//   meanwhile COMMAND        carries the command out when the window is idle next, also while another command waits
//   state                    target text, held keys, pointer, placement, condition, ...
//   paste TEXT-IN-HEX        opens the typing dialog with a text
//   type                     presses its "Type" button;  cancel  its "Cancel"
//   upgrade FILE             opens the upgrade dialog with a file;  start  presses its button
//   action NAME [TARGET]     activates a menu entry, e.g. "action quality 720P"
//   fullscreen on|off        full screen without the window's own menu, as by the window manager
//   resize WIDTH HEIGHT      of the window, logical pixels
//   screenshot               saves one; says where
//   close                    closes the window; what the device took and holds after that, and
//                            the window's last words
//   typed N                  what was typed into the target of the Mirn number N
//   sent N                   what the device took after its first N records, one word each
//   where TEXT | field TEXT  the shown label TEXT, or the field it names: window, place, text
//   texts                    all texts shown
//   windows                  the shown windows, and how many frames each has drawn
//   redraw                   the same, and asks each for one more frame
#pragma once

#include <glibmm/iochannel.h>
#include <glibmm/main.h>

#include <string>

#include "apps/common/virtual_world.h"
#include "apps/console/console_window.h"

namespace mirn {

// Bound to the main thread; window and world must outlive it.
class Steering {
 public:
  Steering(ConsoleWindow& window, VirtualWorld& world, int output);
  ~Steering();
  Steering(const Steering&) = delete;
  Steering& operator=(const Steering&) = delete;

 private:
  bool onInput(Glib::IOCondition condition);
  std::string answer(const std::string& line);
  std::string look(const std::string& command, const std::string& rest);  // empty: not a question
  std::string act(const std::string& line);
  bool happen(const std::string& event, size_t number);
  bool ticked(const char* action) const;
  std::string chosen(const char* action) const;
  std::string state();

  ConsoleWindow& window_;
  VirtualWorld& world_;
  int output_;
  std::string pending_;
  sigc::connection watch_;
};

}  // namespace mirn
