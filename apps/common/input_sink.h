// Where the programs' input goes: five kinds of event, the same that the plug-in's channel offers.
#pragma once

namespace mirn {

// Receives input for the target computer. Key codes are Windows virtual-key codes, positions are 0..32767 per axis.
// Bound to the main thread.
class InputSink {
 public:
  virtual ~InputSink() = default;

  virtual void keyDown(int virtual_key) = 0;
  // Code 0 releases every held key.
  virtual void keyUp(int virtual_key) = 0;
  virtual void mouseMove(int x, int y) = 0;
  // `type` is one of "lbdown", "lbup", "rbdown", "rbup", "mbdown", "mbup".
  virtual void mouseButton(const char* type, int x, int y) = 0;
  // One notch: a delta below 1 turns the wheel up, 1 and more turn it down.
  virtual void mouseWheel(int x, int y, int delta) = 0;
};

}  // namespace mirn
