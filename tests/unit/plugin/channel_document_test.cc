// docs/channel.md says what the command tables say.
#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

#include "plugin/flutter_mirn_plugin.h"
#include "plugin/flutter_mirn_plugin_c_api.h"

namespace mirn::test {
namespace {

// The rows of the table that follows the heading, without their last column.
std::vector<std::string> documentedRows(const std::string& heading) {
  std::ifstream file(MIRN_CHANNEL_DOCUMENT);
  std::vector<std::string> rows;
  bool inside = false;
  for (std::string line; std::getline(file, line);) {
    if (line.starts_with("## ")) inside = line == heading;
    if (!inside || !line.starts_with("| ") || line.starts_with("| #")) continue;
    if (line.find("| `") == std::string::npos) continue;  // the table of numbers
    const size_t last = line.rfind(" |", line.size() - 3);
    rows.push_back(line.substr(0, last));
  }
  return rows;
}

std::string typeName(ArgumentType type) {
  switch (type) {
    case ArgumentType::kInt32:
      return "int";
    case ArgumentType::kInt64:
      return "int64";
    case ArgumentType::kText:
      return "text";
  }
  return "?";
}

std::string insteadName(Instead instead, const Argument& first) {
  switch (instead) {
    case Instead::kForward:
      return first.type == ArgumentType::kText ? "counts as no text" : "counts as 0";
    case Instead::kErrorObject:
      return "error";
    case Instead::kNull:
      return "null, and nothing is done";
    case Instead::kZero:
      return "`0`";
    case Instead::kMinusTwo:
      return "`-2`";
    case Instead::kMinusThree:
      return "`-3`";
    case Instead::kNoReply:
      return "never answered";
  }
  return "?";
}

std::string replyName(ReplyKind reply) {
  switch (reply) {
    case ReplyKind::kNull:
      return "null";
    case ReplyKind::kBool:
      return "bool";
    case ReplyKind::kInt32:
      return "int32";
    case ReplyKind::kInt64:
      return "int64";
    case ReplyKind::kTextList:
      return "list of texts";
    case ReplyKind::kIntegerList:
      return "list of int32";
    case ReplyKind::kSizeMap:
      return "map of doubles";
    case ReplyKind::kNoReply:
      return "never answered";
  }
  return "?";
}

std::string mainRow(size_t number, const MainCommand& command) {
  std::string arguments;
  for (size_t i = 0; i < command.argumentCount(); ++i) {
    const Argument& argument = command.arguments[i];
    arguments += (i > 0 ? ", `" : "`") + std::string(argument.key) + "`: " + typeName(argument.type);
  }
  const bool none = arguments.empty();
  return "| " + std::to_string(number) + " | `" + std::string(command.name) + "` | " + (none ? "none" : arguments) +
         " | " + (none ? "ignored" : insteadName(command.notDictionary, {})) + " | " +
         (none ? "ignored" : insteadName(command.keyMissing, command.arguments[0])) + " | " + replyName(command.reply);
}

std::string frameReplyName(FrameReply reply) {
  switch (reply) {
    case FrameReply::kText:
      return "text";
    case FrameReply::kTextList:
      return "list of texts";
    case FrameReply::kBool:
      return "bool";
    case FrameReply::kFrame:
      return "frame";
    case FrameReply::kInt32:
      return "int32";
    case FrameReply::kNull:
      return "null";
  }
  return "?";
}

std::string frameRow(size_t number, const FrameCommand& command) {
  std::string arguments = "ignored";
  if (command.arguments == FrameArguments::kSomeIntegers) arguments = "list of integers, one at least";
  if (command.arguments == FrameArguments::kTwoIntegers) arguments = "list of two integers";
  const bool ignored = command.arguments == FrameArguments::kIgnored;
  return "| " + std::to_string(number) + " | `" + std::string(command.name) + "` | " + arguments + " | " +
         (ignored ? "ignored" : "error `" + std::string(command.argumentError) + "`") + " | " +
         frameReplyName(command.reply);
}

TEST(ChannelDocument, ListsTheMainCommandsAsTheTableHasThem) {
  const std::vector<std::string> rows = documentedRows("## Main plug-in");
  ASSERT_EQ(rows.size(), mainCommands().size());
  for (size_t i = 0; i < rows.size(); ++i) EXPECT_EQ(rows[i], mainRow(i + 1, mainCommands()[i]));
}

TEST(ChannelDocument, ListsTheSecondPluginsCommandsAsTheTableHasThem) {
  const std::vector<std::string> rows = documentedRows("## Second plug-in");
  ASSERT_EQ(rows.size(), frameCommands().size());
  for (size_t i = 0; i < rows.size(); ++i) EXPECT_EQ(rows[i], frameRow(i + 1, frameCommands()[i]));
}

}  // namespace
}  // namespace mirn::test
