// The command line of mirn-virtual, and the statuses with which it ends before it needs root or a kernel.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <string>
#include <vector>

#include "apps/mirn-virtual/fleet.h"
#include "apps/mirn-virtual/options.h"

namespace mirn {
namespace {

using testing::HasSubstr;
using testing::StartsWith;

ParsedOptions parsed(std::vector<std::string> words) {
  words.insert(words.begin(), "mirn-virtual");
  std::vector<char*> raw;
  for (std::string& word : words) raw.push_back(word.data());
  raw.push_back(nullptr);
  return parseOptions(static_cast<int>(words.size()), raw.data());
}

TEST(VirtualOptionsTest, WithoutOptionsItIsOneMirnAtHighSpeedSteeredFromStandardInput) {
  const ParsedOptions none = parsed({});
  ASSERT_TRUE(none.options) << none.text;
  EXPECT_EQ(none.options->devices, 1);
  EXPECT_EQ(none.options->shape.speed, UsbSpeed::kHigh);
  EXPECT_EQ(none.options->shape.transfer, VideoTransfer::kBulk);
  EXPECT_FALSE(none.options->first_port);
  EXPECT_EQ(none.options->picture, VirtualPicture::kTarget);
  EXPECT_EQ(none.options->name + none.options->version + none.options->serial + none.options->control_path, "");
  EXPECT_TRUE(none.options->commands_from_stdin);
  EXPECT_FALSE(none.options->unplugged);
}

TEST(VirtualOptionsTest, EveryLongOptionIsTaken) {
  const ParsedOptions all = parsed({"--devices=8", "--speed=super", "--transfer=bulk", "--port=0", "--picture=pattern",
                                    "--name=12345678901234567890", "--firmware=123456789", "--serial=twin",
                                    "--faults=drop@3", "--control=/run/mirn", "--no-stdin", "--unplugged"});
  ASSERT_TRUE(all.options) << all.text;
  EXPECT_EQ(all.options->devices, 8);
  EXPECT_EQ(all.options->shape.speed, UsbSpeed::kSuper);
  EXPECT_EQ(all.options->first_port, 0);
  EXPECT_EQ(all.options->picture, VirtualPicture::kPattern);
  EXPECT_EQ(all.options->name, "12345678901234567890");
  EXPECT_EQ(all.options->version, "123456789");
  EXPECT_EQ(all.options->serial, "twin");
  EXPECT_EQ(all.options->control_path, "/run/mirn");
  EXPECT_FALSE(all.options->commands_from_stdin);
  EXPECT_TRUE(all.options->unplugged);
}

TEST(VirtualOptionsTest, EveryLetterIsTaken) {
  const ParsedOptions all =
      parsed({"-n", "2", "-s", "high", "-t", "isochronous", "-p", "1023", "-f", "delay=80@5+", "-c", "socket"});
  ASSERT_TRUE(all.options) << all.text;
  EXPECT_EQ(all.options->devices, 2);
  EXPECT_EQ(all.options->shape.speed, UsbSpeed::kHigh);
  EXPECT_EQ(all.options->shape.transfer, VideoTransfer::kIsochronous);
  EXPECT_EQ(all.options->first_port, 1023);
  EXPECT_EQ(all.options->control_path, "socket");
}

struct WrongLine {
  std::vector<std::string> words;
  std::string said;
};

class VirtualOptionsWrong : public testing::TestWithParam<WrongLine> {};

TEST_P(VirtualOptionsWrong, IsOneLineAndStatus2) {
  const ParsedOptions result = parsed(GetParam().words);
  EXPECT_FALSE(result.options);
  EXPECT_EQ(result.status, VirtualExit::kUsage);
  EXPECT_THAT(result.text, StartsWith("mirn-virtual: " + GetParam().said));
  EXPECT_THAT(result.text, HasSubstr("(try --help)"));
  EXPECT_EQ(result.text.find('\n'), std::string::npos);
}

INSTANTIATE_TEST_SUITE_P(
    Each, VirtualOptionsWrong,
    testing::Values(WrongLine{{"--devices=0"}, "--devices takes a number from 1 to 8, not \"0\""},
                    WrongLine{{"--devices=9"}, "--devices takes a number from 1 to 8, not \"9\""},
                    WrongLine{{"-n", "2x"}, "--devices takes a number from 1 to 8, not \"2x\""},
                    WrongLine{{"--speed=full"}, "--speed is high or super, not \"full\""},
                    WrongLine{{"--transfer=fast"}, "--transfer is bulk or isochronous, not \"fast\""},
                    WrongLine{{"--speed=super", "--transfer=isochronous"}, "isochronous transfers are offered at"},
                    WrongLine{{"--port=-1"}, "--port takes a number, not \"-1\""},
                    WrongLine{{"--port=1024"}, "--port takes a number, not \"1024\""},
                    WrongLine{{"--port=99999999999"}, "--port takes a number, not \"99999999999\""},
                    WrongLine{{"--picture=cat"}, "--picture is target or pattern, not \"cat\""},
                    WrongLine{{"--name=123456789012345678901"}, "--name takes at most 20 bytes"},
                    WrongLine{{"--firmware=1234567890"}, "--firmware takes at most 9 bytes"},
                    WrongLine{{"--faults=nonsense"}, "--faults: "}, WrongLine{{"--control="}, "--control takes a path"},
                    WrongLine{{"--devices"}, "--devices needs a value"}, WrongLine{{"-c"}, "-c needs a value"},
                    WrongLine{{"--frob"}, "unknown option --frob"}, WrongLine{{"-x"}, "unknown option -x"},
                    WrongLine{{"--unplugged", "-xy"}, "unknown option -x"},
                    WrongLine{{"--help=me"}, "unknown option --help=me"},
                    WrongLine{{"now"}, "unexpected argument now"}),
    [](const auto& line) { return "Line" + std::to_string(line.index); });

TEST(VirtualExitTest, EveryFailureOfTheKernelHasItsStatus) {
  EXPECT_EQ(exitStatusOf(VhciError::kFailed), VirtualExit::kFailed);
  EXPECT_EQ(exitStatusOf(VhciError::kNotAllowed), VirtualExit::kNotAllowed);
  EXPECT_EQ(exitStatusOf(VhciError::kNoModule), VirtualExit::kNoModule);
  EXPECT_EQ(exitStatusOf(VhciError::kPortTaken), VirtualExit::kPort);
  EXPECT_EQ(exitStatusOf(VhciError::kNoSuchPort), VirtualExit::kPort);
  EXPECT_EQ(exitStatusOf(VhciError::kNoFreePort), VirtualExit::kPort);
  EXPECT_EQ(static_cast<int>(VirtualExit::kFailed), 1);
  EXPECT_EQ(static_cast<int>(VirtualExit::kPort), 5);
}

struct Ended {
  int status = -1;
  std::string output;
};

Ended runProgram(const std::string& line) {
  Ended ended;
  FILE* pipe = ::popen((MIRN_VIRTUAL_PROGRAM " " + line + " < /dev/null").c_str(), "r");
  if (pipe == nullptr) return ended;
  std::array<char, 512> bytes{};
  while (const size_t count = std::fread(bytes.data(), 1, bytes.size(), pipe)) ended.output.append(bytes.data(), count);
  const int status = ::pclose(pipe);
  if (WIFEXITED(status)) ended.status = WEXITSTATUS(status);
  return ended;
}

TEST(VirtualProgramTest, WrongOptionsAreOneLineOnStandardErrorAndStatus2) {
  const Ended wrong = runProgram("--devices=9 2>&1 >/dev/null");
  EXPECT_EQ(wrong.status, 2);
  EXPECT_EQ(wrong.output, "mirn-virtual: --devices takes a number from 1 to 8, not \"9\" (try --help)\n");
  EXPECT_EQ(runProgram("--frob 2>/dev/null").status, 2);
  EXPECT_EQ(runProgram("--frob 2>/dev/null").output, "");
}

TEST(VirtualProgramTest, HelpIsOutputAndStatus0) {
  const Ended help = runProgram("--help");
  EXPECT_EQ(help.status, 0);
  EXPECT_THAT(help.output, HasSubstr("Exit status: 0 ended by request, 1 failure, 2 wrong arguments"));
}

}  // namespace
}  // namespace mirn
