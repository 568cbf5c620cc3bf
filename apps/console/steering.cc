#include "apps/console/steering.h"

#include <unistd.h>

#include <array>
#include <charconv>
#include <chrono>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <sstream>
#include <variant>

#include "apps/common/program_start.h"
#include "apps/console/widget_finder.h"
#include "virtual/frame_strip.h"

namespace mirn {
namespace {

using Json = nlohmann::ordered_json;

std::string fromHex(const std::string& hex) {
  std::string bytes;
  for (size_t i = 0; i + 1 < hex.size(); i += 2) {
    int value = 0;
    std::from_chars(hex.data() + i, hex.data() + i + 2, value, 16);
    bytes += static_cast<char>(value);
  }
  return bytes;
}

// Processor time that the virtual devices have used in this process for their frames.
double drawingMs(VirtualWorld& world) {
  std::chrono::duration<double, std::milli> used{0};
  for (size_t i = 0; i < world.setup().size(); ++i) {
    used += world.setup().camera(i).counters().drawing;
  }
  return used.count();
}

Json stripOf(const PixelBufferRef& picture) {
  if (!picture) {
    return nullptr;
  }
  picture->lockBaseAddress(kPixelBufferLockReadOnly);
  auto strip = readStripBgra(picture->baseAddress(), static_cast<int>(picture->width()),
                             static_cast<int>(picture->height()), picture->bytesPerRow());
  picture->unlockBaseAddress(kPixelBufferLockReadOnly);
  if (!strip) {
    return nullptr;
  }
  return {{"frame", strip->frame_number}, {"digest", strip->input_digest}};
}

std::string wordFor(const VirtualRecord& record) {
  if (const auto* keys = std::get_if<VirtualKeyboard>(&record)) {
    return *keys == VirtualKeyboard{} ? "keys-up" : "keys";
  }
  if (const auto* mouse = std::get_if<VirtualMouse>(&record)) {
    return mouse->left + mouse->right + mouse->middle == 0 ? "buttons-up" : "buttons";
  }
  if (std::holds_alternative<VirtualFirmwareChunk>(record)) {
    return "chunk";
  }
  return std::holds_alternative<VirtualHandshake>(record) ? "handshake" : "other";
}

// What the device took after the first `number` records, one word each.
Json sentAfter(const VirtualMirn& device, uint64_t number) {
  Json words = Json::array();
  for (const VirtualReceived& received : device.receivedAfter(number)) {
    words.push_back(wordFor(received.record));
  }
  return {{"sent", words}};
}

Json heldOn(const VirtualMirn& device) {
  VirtualInputState held = device.input();
  return {{"keys", held.keys}, {"modifiers", held.modifiers}, {"buttons", held.buttons}};
}

Json placeJson(const std::optional<WidgetPlace>& place) {
  if (!place) {
    return {{"found", false}};
  }
  return {{"found", true},
          {"window", place->window},
          {"at", {place->left, place->top, place->width, place->height}},
          {"sensitive", place->sensitive},
          {"text", place->text}};
}

Json windowsJson() {
  Json windows = Json::object();
  for (const WindowFrames& window : shownWindows()) {
    windows[window.title] = window.frames;
  }
  return windows;
}

std::string dump(const Json& answer) {
  return answer.dump(-1, ' ', false, Json::error_handler_t::replace);
}

}  // namespace

Steering::Steering(ConsoleWindow& window, VirtualWorld& world, int output)
    : window_(window), world_(world), output_(output) {
  watch_ = Glib::signal_io().connect(sigc::mem_fun(*this, &Steering::onInput), STDIN_FILENO,
                                     Glib::IOCondition::IO_IN | Glib::IOCondition::IO_HUP);
}

Steering::~Steering() {
  watch_.disconnect();
}

bool Steering::onInput(Glib::IOCondition /*condition*/) {
  std::array<char, 4096> buffer{};
  ssize_t length = read(STDIN_FILENO, buffer.data(), buffer.size());
  if (length <= 0) {
    return false;
  }
  pending_.append(buffer.data(), static_cast<size_t>(length));
  for (size_t end = pending_.find('\n'); end != std::string::npos; end = pending_.find('\n')) {
    std::string line = pending_.substr(0, end);
    pending_.erase(0, end + 1);
    writeAll(output_, answer(line) + "\n");
  }
  return true;
}

std::string Steering::look(const std::string& command, const std::string& rest) {
  if (command == "state") {
    return state();
  }
  if (command == "sent") {
    return dump(sentAfter(world_.mirn(), std::strtoull(rest.c_str(), nullptr, 10)));
  }
  if (command == "typed") {
    size_t index = std::strtoull(rest.c_str(), nullptr, 10) - 1;
    return dump({{"text", index < world_.setup().size() ? world_.target(index).text() : ""}});
  }
  if (command == "where") {
    return dump(placeJson(findLabel(rest)));
  }
  if (command == "field") {
    return dump(placeJson(findField(rest)));
  }
  if (command == "texts") {
    return dump({{"texts", shownTexts()}});
  }
  if (command == "windows") {
    return dump({{"windows", windowsJson()}});
  }
  if (command == "redraw") {
    Json before = windowsJson();
    redrawWindows();
    return dump({{"windows", before}});
  }
  return "";
}

std::string Steering::answer(const std::string& line) {
  size_t blank = line.find(' ');
  std::string seen = look(line.substr(0, blank), blank == std::string::npos ? "" : line.substr(blank + 1));
  return seen.empty() ? act(line) : seen;
}

// What happens to a stick; `number` counts from 1.
bool Steering::happen(const std::string& event, size_t number) {
  size_t index = number - 1;
  if (index >= world_.setup().size()) {
    return false;
  }
  VirtualCaptureDevice& camera = world_.setup().camera(index);
  if (event == "unplug") {
    world_.unplug(index);
  } else if (event == "plug") {
    world_.replug(index);
  } else if (event == "busy" || event == "free") {
    camera.setBusy(event == "busy");
  } else if (event == "deny" || event == "allow") {
    camera.setDenied(event == "deny");
  } else if (event == "signal" || event == "no-signal") {
    world_.setSignal(event == "signal", index);
  } else {
    return false;
  }
  return true;
}

std::string Steering::act(const std::string& line) {
  std::istringstream words(line);
  std::string command;
  std::string first;
  std::string second;
  words >> command >> first >> second;
  Json done = {{"ok", true}};
  if (happen(command, first.empty() ? 1 : std::strtoull(first.c_str(), nullptr, 10))) {
    return dump(done);
  }
  if (command == "meanwhile") {
    // Before anything else that waits: while the window closes, this is the first turn of the loop that serves it.
    Glib::signal_idle().connect_once([this, later = line.substr(line.find(' ') + 1)] { act(later); },
                                     Glib::PRIORITY_HIGH);
  } else if (command == "paste") {
    window_.pasteText(fromHex(first));
  } else if (command == "type") {
    window_.paste().start();
  } else if (command == "cancel") {
    window_.paste().cancel();
  } else if (command == "upgrade") {
    window_.upgrade().offer(first);
  } else if (command == "start") {
    window_.upgrade().start();
  } else if (command == "action") {
    if (second.empty()) {
      window_.activate_action("win." + first);
    } else {
      window_.activate_action("win." + first, Glib::Variant<Glib::ustring>::create(second));
    }
  } else if (command == "fullscreen") {
    first == "on" ? window_.fullscreen() : window_.unfullscreen();
  } else if (command == "resize") {
    window_.set_default_size(std::stoi(first), std::stoi(second));
  } else if (command == "screenshot") {
    done["file"] = window_.saveScreenshot();
  } else if (command == "close") {
    uint64_t before = world_.mirn().receivedCount();
    window_.close();
    done.update(sentAfter(world_.mirn(), before));
    done["held"] = heldOn(world_.mirn());
    done["said"] = window_.said();
  } else {
    done = {{"ok", false}};
  }
  return dump(done);
}

bool Steering::ticked(const char* action) const {
  bool on = false;
  if (auto switch_action = std::dynamic_pointer_cast<Gio::SimpleAction>(window_.lookup_action(action))) {
    switch_action->get_state(on);
  }
  return on;
}

std::string Steering::chosen(const char* action) const {
  Glib::ustring choice;
  if (auto radio = std::dynamic_pointer_cast<Gio::SimpleAction>(window_.lookup_action(action))) {
    radio->get_state(choice);
  }
  return choice.raw();
}

std::string Steering::state() {
  TargetInputState target = world_.target().inputState();
  VirtualInputState device = world_.mirn().input();
  const Placement& place = window_.view().placement();
  Json clicks = Json::array();
  for (const TargetClick& click : world_.target().clicks()) {
    clicks.push_back({click.x, click.y, click.button});
  }
  Json state = {{"text", world_.target().text()},
                {"modifiers", target.modifiers},
                {"keys", target.keys},
                {"pointer", {device.x, device.y}},
                {"buttons", target.buttons},
                {"wheel", target.wheel},
                {"clicks", clicks},
                {"digest", target.digest()},
                {"version", world_.mirn().version()},
                {"name", world_.mirn().name()},
                {"led", world_.mirn().led().status},
                {"exchanges", world_.mirn().receivedCount()},
                {"device_ms", drawingMs(world_)},
                {"condition", adviceFor(window_.link().condition(), window_.link().facts()).word},
                {"blocked", window_.link().blockedReason()},
                {"captured", window_.input().captured()},
                {"active", window_.is_active()},
                {"fullscreen", window_.is_fullscreen()},
                {"fullscreen_ticked", ticked("fullscreen")},
                {"quality_ticked", chosen("quality")},
                {"color_ticked", chosen("color")},
                {"info", window_.link().info().has_value()},
                {"said", window_.said()},
                {"picture", {window_.view().pictureWidth(), window_.view().pictureHeight()}},
                {"format", fourCharText(hostSessionStatistics().pixelFormat)},
                {"pictures", window_.feed().pictures()},
                {"placement", {place.left, place.top, place.width, place.height}},
                {"scale", window_.view().get_scale_factor()},
                {"window", {window_.get_width(), window_.get_height()}},
                {"drawn", window_.view().drawn()},
                {"uploaded", window_.view().uploaded()},
                {"strip", stripOf(window_.view().picture())},
                {"typing", window_.paste().running()},
                {"upgrading", window_.upgrade().running()},
                {"upgrade", window_.upgrade().outcome()}};
  double left = 0;
  double top = 0;
  window_.view().translate_coordinates(window_, 0, 0, left, top);
  double surface_left = 0;
  double surface_top = 0;
  gtk_native_get_surface_transform(GTK_NATIVE(window_.gobj()), &surface_left, &surface_top);
  state["view"] = {left + surface_left, top + surface_top, window_.view().get_width(), window_.view().get_height()};
  return dump(state);
}

}  // namespace mirn
