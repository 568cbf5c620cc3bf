// lib/src/*.dart calls what the command tables have, with their keys.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <string>
#include <utility>
#include <vector>

#include "plugin/flutter_mirn_plugin.h"
#include "plugin/flutter_mirn_plugin_c_api.h"

namespace mirn::test {
namespace {

// A call in words: "keyDown key", "mouseMove x y", "setResolution 2 integers", "open".
using Calls = std::vector<std::string>;

constexpr char kFrameGrabber[] = "mirn_frame_grabber.dart";

std::string sentence(const std::string& method, std::vector<std::string> keys) {
  std::sort(keys.begin(), keys.end());
  std::string text = method;
  for (const std::string& key : keys) text += " " + key;
  return text;
}

std::string integers(size_t count) {
  return std::to_string(count) + (count == 1 ? " integer" : " integers");
}

std::string withoutComments(const std::filesystem::path& path) {
  std::ifstream file(path);
  std::string text;
  for (std::string line; std::getline(file, line);) text += line.substr(0, line.find("//")) + "\n";
  return text;
}

// The keys of a map, or the length of a list of integers, in what follows a method's name.
std::vector<std::string> argumentsIn(const std::string& rest) {
  static const std::regex key(R"('(\w+)'\s*:)");
  static const std::regex list(R"(<int>\[([^\]]*)\])");
  std::vector<std::string> keys;
  for (std::sregex_iterator found(rest.begin(), rest.end(), key), end; found != end; ++found) {
    keys.push_back((*found)[1]);
  }
  std::smatch numbers;
  if (std::regex_search(rest, numbers, list)) {
    const std::string inside = numbers[1];
    keys.push_back(integers(static_cast<size_t>(std::count(inside.begin(), inside.end(), ',')) + 1));
  }
  return keys;
}

// Every call of the channel with a name in quotes, directly or through one of the file's helpers.
Calls callsIn(const std::filesystem::path& path) {
  static const std::regex call(R"((?:invoke\w*Method(?:<[^(]*>)?|_yes|_texts|_forget)\s*\(\s*'(\w+)')");
  const std::string text = withoutComments(path);
  Calls calls;
  for (std::sregex_iterator found(text.begin(), text.end(), call), end; found != end; ++found) {
    const size_t after = static_cast<size_t>(found->position() + found->length());
    calls.push_back(sentence((*found)[1], argumentsIn(text.substr(after, text.find(';', after) - after))));
  }
  return calls;
}

Calls mainCalls() {
  Calls calls;
  for (const MainCommand& command : mainCommands()) {
    std::vector<std::string> keys;
    for (size_t i = 0; i < command.argumentCount(); ++i) keys.emplace_back(command.arguments[i].key);
    calls.push_back(sentence(std::string(command.name), std::move(keys)));
  }
  return calls;
}

Calls frameCalls() {
  Calls calls;
  for (const FrameCommand& command : frameCommands()) {
    std::vector<std::string> arguments;
    if (command.arguments == FrameArguments::kSomeIntegers) arguments.push_back(integers(1));
    if (command.arguments == FrameArguments::kTwoIntegers) arguments.push_back(integers(2));
    calls.push_back(sentence(std::string(command.name), std::move(arguments)));
  }
  return calls;
}

TEST(DartWrapper, CallsEveryMainCommandOnceWithItsKeys) {
  Calls calls;
  for (const auto& file : std::filesystem::directory_iterator(MIRN_DART_SOURCES)) {
    if (file.path().extension() != ".dart" || file.path().filename() == kFrameGrabber) continue;
    const Calls more = callsIn(file.path());
    calls.insert(calls.end(), more.begin(), more.end());
  }
  EXPECT_THAT(calls, testing::UnorderedElementsAreArray(mainCalls()));
}

TEST(DartWrapper, CallsEveryCommandOfTheSecondPluginOnceWithItsArguments) {
  EXPECT_THAT(callsIn(std::filesystem::path(MIRN_DART_SOURCES) / kFrameGrabber),
              testing::UnorderedElementsAreArray(frameCalls()));
}

}  // namespace
}  // namespace mirn::test
