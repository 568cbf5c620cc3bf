// An input sink that writes down what it is given.
#pragma once

#include <string>
#include <vector>

#include "apps/common/input_sink.h"

namespace mirn {

class RecordingSink : public InputSink {
 public:
  void keyDown(int virtual_key) override { events.push_back("down " + std::to_string(virtual_key)); }
  void keyUp(int virtual_key) override { events.push_back("up " + std::to_string(virtual_key)); }
  void mouseMove(int x, int y) override { add("move", x, y); }
  void mouseButton(const char* type, int x, int y) override { add(type, x, y); }
  void mouseWheel(int x, int y, int delta) override { add("wheel " + std::to_string(delta), x, y); }

  std::vector<std::string> take() { return std::exchange(events, {}); }

  std::vector<std::string> events;

 private:
  void add(const std::string& what, int x, int y) {
    events.push_back(what + " " + std::to_string(x) + "," + std::to_string(y));
  }
};

}  // namespace mirn
