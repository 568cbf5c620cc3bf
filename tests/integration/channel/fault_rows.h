// Every command of both plug-ins with what it answers while the device works, while it is silent, and once it is gone.
#pragma once

#include <gmock/gmock.h>

#include <string>
#include <vector>

#include "tests/integration/channel/channel_world.h"

namespace mirn::test {

using ReplyMatcher = testing::Matcher<std::string>;

struct FaultRow {
  const char* method;
  Value arguments;
  ReplyMatcher answered;  // the device answers each exchange in time
  ReplyMatcher silent;    // it is there and answers no exchange
  ReplyMatcher gone;      // it was pulled out; the connection and the session of before are still held
  bool session = false;   // wants a running capture session
};

// In an order in which each row's replies don't depend on what the rows before it have done. `image` is a file for the
// upgrade; the world has a device, and a connection to it.
std::vector<FaultRow> mainFaultRows(ChannelWorld& world, const std::string& image);
// Wants a session with a first frame in each row but "open".
std::vector<FaultRow> secondFaultRows();

// Asks and compares.
testing::AssertionResult answers(ChannelWorld& world, const char* method, const Value& arguments,
                                 const ReplyMatcher& expected);

// A new connection does everything: it answers, and keys reach the device.
void expectANewConnectionWorks(ChannelWorld& world);

FaultPlan planOf(const std::string& text);

}  // namespace mirn::test
