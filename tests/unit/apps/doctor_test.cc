#include "apps/mirnctl/doctor.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <filesystem>
#include <fstream>

#include "apps/mirnctl/access_list.h"
#include "platform/mirn_identity.h"

namespace mirn {
namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;

class DoctorTest : public testing::Test {
 protected:
  // One complete Mirn that nobody else uses, with the rule installed.
  DoctorTest() {
    MirnOnBus mirn;
    mirn.port = "1-4";
    mirn.hid.push_back({"/dev/hidraw0", true, "root:root 0660", {}});
    mirn.video.push_back({"/dev/video0", true, "root:video 0660", {}});
    for (int height : {1080, 720}) {
      for (const char* subtype : {"420v", "yuvs"}) {
        mirn.formats.push_back({height * 16 / 9, height, subtype, "NV12", 60});
      }
    }
    facts_.devices.push_back(mirn);
    facts_.udev_rules = {"/usr/lib/udev/rules.d/70-mirn.rules"};
  }

  MirnOnBus& mirn() { return facts_.devices.front(); }

  // Mark and text of the only check of this name; a failure when there are several or none.
  DoctorCheck only(const std::string& name) {
    std::vector<DoctorCheck> found;
    for (const DoctorCheck& check : judge(facts_).checks) {
      if (check.name == name) {
        found.push_back(check);
      }
    }
    EXPECT_EQ(found.size(), 1U) << name;
    return found.empty() ? DoctorCheck{} : found.front();
  }
  void expectTrouble(const std::string& name, const std::string& text, ExitStatus status, const std::string& step) {
    DoctorReport report = judge(facts_);
    EXPECT_EQ(report.status, status);
    EXPECT_THAT(report.next_step, HasSubstr(step));
    bool found = false;
    for (const DoctorCheck& check : report.checks) {
      found =
          found || (check.name == name && check.mark == CheckMark::kBad && check.text.find(text) != std::string::npos);
    }
    EXPECT_TRUE(found) << "a bad \"" << name << "\" with \"" << text << "\"";
  }

  DoctorFacts facts_;
};

TEST_F(DoctorTest, ACompleteMirnHasNothingToBeDone) {
  DoctorReport report = judge(facts_);
  EXPECT_EQ(report.status, kExitOk);
  EXPECT_EQ(report.next_step, "");
  for (const DoctorCheck& check : report.checks) {
    EXPECT_EQ(check.mark, CheckMark::kGood) << check.text;
  }
  EXPECT_THAT(only("permission").text, HasSubstr("every node"));
  EXPECT_THAT(only("formats").text, HasSubstr("all four"));
}

TEST_F(DoctorTest, NoMirnIsSaidAndTheRuleIsStillLookedAt) {
  facts_.devices.clear();
  expectTrouble("plugged-in", "No Mirn", kExitNotPluggedIn, "Plug the Mirn");
  EXPECT_EQ(only("udev-rule").mark, CheckMark::kGood);
}

TEST_F(DoctorTest, SeveralMirnsAreNoted) {
  facts_.devices.push_back(mirn());
  facts_.devices.back().port = "1-5";
  EXPECT_EQ(only("several").mark, CheckMark::kNote);
  EXPECT_THAT(only("plugged-in").text, HasSubstr("1-4, 1-5"));
  EXPECT_EQ(judge(facts_).status, kExitOk);
}

TEST_F(DoctorTest, AMissingKeyboardNodeIsIncomplete) {
  mirn().hid.clear();
  expectTrouble("nodes", "no keyboard node", kExitIncomplete, "usbhid");
}

TEST_F(DoctorTest, AMissingCameraNodeIsIncomplete) {
  mirn().video.clear();
  expectTrouble("nodes", "no camera node", kExitIncomplete, "uvcvideo");
}

TEST_F(DoctorTest, AMissingFormatIsIncomplete) {
  mirn().formats.erase(mirn().formats.begin());
  expectTrouble("formats", "lacks 1920x1080 420v", kExitIncomplete, "full speed");
}

TEST_F(DoctorTest, AnOpenCameraWithoutAUsableFormatIsIncomplete) {
  mirn().formats.clear();
  expectTrouble("formats", "1-4: the camera offers no picture format that can be used", kExitIncomplete,
                "a USB port of its own");
}

TEST_F(DoctorTest, TheListOfACameraThatMayNotBeOpenedIsNoted) {
  mirn().formats.clear();
  mirn().video[0].may_open = false;
  EXPECT_EQ(only("formats").mark, CheckMark::kNote);
  EXPECT_EQ(judge(facts_).status, kExitNoPermission);
  mirn().video.clear();
  EXPECT_EQ(only("formats").mark, CheckMark::kNote);
  EXPECT_THAT(judge(facts_).next_step, HasSubstr("uvcvideo"));
}

TEST_F(DoctorTest, PermissionOfEitherNodeIsJudgedAndTheStepDependsOnTheRule) {
  mirn().hid[0].may_open = false;
  expectTrouble("permission", "/dev/hidraw0 may not be opened by this user (root:root 0660)", kExitNoPermission,
                "Unplug the Mirn");
  facts_.udev_rules.clear();
  expectTrouble("permission", "/dev/hidraw0", kExitNoPermission, "mirn-udev");
  mirn().hid[0].may_open = true;
  mirn().video[0].may_open = false;
  expectTrouble("permission", "/dev/video0", kExitNoPermission, "mirn-udev");
}

TEST_F(DoctorTest, AHeldCameraIsBusyAndAHeldKeyboardIsNoted) {
  mirn().hid[0].holders = {{7, "other"}};
  EXPECT_EQ(only("holders").mark, CheckMark::kNote);
  EXPECT_EQ(judge(facts_).status, kExitOk);
  mirn().video[0].holders = {{42, "cheese"}};
  expectTrouble("holders", "/dev/video0 is held by cheese (process 42)", kExitBusy, "Close cheese (process 42).");
}

TEST_F(DoctorTest, AMissingRuleIsTheLastStep) {
  facts_.udev_rules.clear();
  EXPECT_EQ(only("udev-rule").mark, CheckMark::kNote);
  EXPECT_EQ(judge(facts_).status, kExitOk);
  EXPECT_THAT(judge(facts_).next_step, HasSubstr("mirn-udev"));
  facts_.is_virtual = true;
  EXPECT_EQ(only("udev-rule").mark, CheckMark::kGood);
}

TEST_F(DoctorTest, TheFirstTroubleDecides) {
  mirn().video.clear();
  mirn().hid[0].may_open = false;
  mirn().formats.erase(mirn().formats.begin());
  EXPECT_EQ(judge(facts_).status, kExitIncomplete);
  EXPECT_THAT(judge(facts_).next_step, HasSubstr("uvcvideo"));
}

// A machine of files: one Mirn with a keyboard node that is a real file.
class SystemSurveyTest : public testing::Test {
 protected:
  SystemSurveyTest() {
    root_ = fs::path(testing::TempDir()) / ("mirn-survey-" + std::to_string(getpid()));
    fs::path usb = root_ / "devices" / "1-4";
    fs::create_directories(usb / "hidraw0");
    fs::create_directories(root_ / "dev");
    fs::create_directories(root_ / "rules");
    fs::create_directories(root_ / "bus" / "usb" / "devices");
    fs::create_directories(root_ / "class" / "hidraw");
    fs::create_symlink(usb, root_ / "bus" / "usb" / "devices" / "1-4");
    fs::create_symlink(usb / "hidraw0", root_ / "class" / "hidraw" / "hidraw0");
    write(usb / "idVendor", hex(g_vid));
    write(usb / "idProduct", hex(g_pid));
    write(usb / "product", "Nuvra Mirn");
    write(node(), "");
    roots_ = {root_, root_ / "dev", "/proc", {root_ / "rules"}};
  }
  ~SystemSurveyTest() override { fs::remove_all(root_); }

  static std::string hex(int number) {
    std::array<char, 8> text{};
    std::snprintf(text.data(), text.size(), "%04x", static_cast<unsigned>(number));
    return text.data();
  }
  static void write(const fs::path& path, const std::string& text) { std::ofstream(path) << text << "\n"; }
  fs::path node() const { return root_ / "dev" / "hidraw0"; }

  fs::path root_;
  SystemRoots roots_;
};

TEST_F(SystemSurveyTest, FindsTheDeviceItsNodeAndItsRule) {
  DoctorFacts facts = readSystem(roots_);
  ASSERT_EQ(facts.devices.size(), 1U);
  EXPECT_EQ(facts.devices[0].port, "1-4");
  EXPECT_EQ(facts.devices[0].product, "Nuvra Mirn");
  ASSERT_EQ(facts.devices[0].hid.size(), 1U);
  EXPECT_EQ(facts.devices[0].hid[0].path, node());
  EXPECT_TRUE(facts.devices[0].hid[0].may_open);
  EXPECT_TRUE(facts.devices[0].video.empty());
  EXPECT_TRUE(facts.udev_rules.empty());
  write(root_ / "rules" / "70-mirn.rules",
        "ATTRS{idVendor}==\"" + hex(g_vid) + "\", ATTRS{idProduct}==\"" + hex(g_pid) + "\", TAG+=\"uaccess\"");
  EXPECT_EQ(readSystem(roots_).udev_rules.size(), 1U);
}

// An access control list as the kernel hands it out: version, then tag, permissions and id of each entry.
std::string accessList(const std::vector<std::array<uint32_t, 3>>& entries) {
  std::string bytes("\2\0\0\0", 4);
  for (const auto& [tag, permissions, id] : entries) {
    for (uint32_t half : {tag, permissions}) {
      bytes += {static_cast<char>(half & 0xFF), static_cast<char>(half >> 8)};
    }
    for (unsigned shift : {0U, 8U, 16U, 24U}) {
      bytes += static_cast<char>(id >> shift & 0xFF);
    }
  }
  return bytes;
}

constexpr uint32_t kNobody = 0xFFFFFFFF;  // in the entries without an id
constexpr uint32_t kStranger = 54321;
const std::string kSharedWithAStranger = accessList({{1, 6, kNobody},
                                                     {2, 6, 0},
                                                     {2, 7, kStranger},
                                                     {4, 6, kNobody},
                                                     {8, 4, 54322},
                                                     {0x10, 6, kNobody},
                                                     {0x20, 0, kNobody}});

TEST(AccessListTest, NamesUsersAndGroupsAsFarAsTheMaskLetsThem) {
  EXPECT_EQ(grantsOf(kSharedWithAStranger), "user root rw, user 54321 rw, group 54322 r");
  EXPECT_EQ(grantsOf(accessList({{2, 4, kStranger}, {0x10, 2, kNobody}})), "") << "the mask leaves nothing";
  EXPECT_EQ(grantsOf(accessList({{1, 6, kNobody}, {4, 6, kNobody}, {0x20, 0, kNobody}})), "") << "the mode says it";
}

TEST(AccessListTest, WhatIsNoListGrantsNothing) {
  EXPECT_EQ(grantsOf(""), "");
  EXPECT_EQ(grantsOf("\1"), "");
  std::string other = kSharedWithAStranger;
  other[0] = 3;
  EXPECT_EQ(grantsOf(other), "") << "another version";
  EXPECT_EQ(grantsOf(kSharedWithAStranger.substr(0, 4 + 8 + 5)), "") << "cut in an entry";
}

TEST_F(SystemSurveyTest, NamesWhomAnAccessListLetsIn) {
  EXPECT_EQ(readSystem(roots_).devices.at(0).hid.at(0).permissions.find("user"), std::string::npos);
  if (setxattr(node().c_str(), "system.posix_acl_access", kSharedWithAStranger.data(), kSharedWithAStranger.size(),
               0) != 0) {
    GTEST_SKIP() << "the temporary folder's file system has no access control lists";
  }
  EXPECT_THAT(readSystem(roots_).devices.at(0).hid.at(0).permissions,
              testing::EndsWith(" 0660; user root rw, user 54321 rw, group 54322 r"));
}

TEST_F(SystemSurveyTest, NamesTheProgramThatHoldsANode) {
  EXPECT_TRUE(readSystem(roots_).devices.at(0).hid.at(0).holders.empty());
  std::array<int, 2> ready{};
  std::array<int, 2> end{};
  ASSERT_EQ(pipe(ready.data()), 0);
  ASSERT_EQ(pipe(end.data()), 0);
  std::string path = node();
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    close(end[1]);
    char byte = open(path.c_str(), O_RDWR) >= 0 ? 'y' : 'n';
    bool told = ::write(ready[1], &byte, 1) == 1;
    _exit(told && read(end[0], &byte, 1) == 0 ? 0 : 1);
  }
  char opened = 'n';
  EXPECT_EQ(read(ready[0], &opened, 1), 1);
  EXPECT_EQ(opened, 'y');
  std::vector<Holder> holders = readSystem(roots_).devices.at(0).hid.at(0).holders;
  close(end[1]);
  int status = -1;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  ASSERT_EQ(holders.size(), 1U);
  EXPECT_EQ(holders[0].pid, child);
  std::string name;
  std::getline(std::ifstream("/proc/self/comm"), name);
  EXPECT_EQ(holders[0].program, name);
  EXPECT_TRUE(readSystem(roots_).devices.at(0).hid.at(0).holders.empty()) << "the child is gone";
  for (int descriptor : {ready[0], ready[1], end[0]}) {
    close(descriptor);
  }
}

}  // namespace
}  // namespace mirn
