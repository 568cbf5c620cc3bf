#include "apps/common/diagnosis.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <set>

namespace mirn {
namespace {

using std::chrono::milliseconds;

class DiagnosisTest : public testing::Test {
 protected:
  Condition at(int ms) { return diagnosis_.update(facts_, Diagnosis::Time{} + milliseconds(ms)); }

  void running(bool proxy, uint64_t frames) {
    facts_.present = true;
    facts_.open = true;
    facts_.proxy = proxy;
    facts_.frames = frames;
  }

  Diagnosis diagnosis_;
  DeviceFacts facts_;
};

TEST_F(DiagnosisTest, AnAbsentDeviceIsNotPluggedIn) {
  EXPECT_EQ(at(0), Condition::kNotPluggedIn);
}

TEST_F(DiagnosisTest, FailedOpensAreToldApart) {
  facts_.present = true;
  EXPECT_EQ(at(0), Condition::kStarting);
  facts_.failure = OpenFailure::kPermission;
  EXPECT_EQ(at(1), Condition::kNoPermission);
  facts_.failure = OpenFailure::kBusy;
  EXPECT_EQ(at(2), Condition::kBusy);
  facts_.failure = OpenFailure::kOther;
  EXPECT_EQ(at(3), Condition::kOpenFailed);
}

TEST_F(DiagnosisTest, AMirnWhoseCameraDoesNotAppearIsSaid) {
  facts_.present = true;
  for (OpenFailure failure : {OpenFailure::kNotFound, OpenFailure::kNone}) {
    diagnosis_ = {};
    facts_.failure = failure;
    EXPECT_EQ(at(1000), Condition::kStarting) << "a moment between the bus and the node is no fault";
    EXPECT_EQ(at(3499), Condition::kStarting);
    EXPECT_EQ(at(3500), Condition::kNoCamera);
  }
  facts_.failure = OpenFailure::kBusy;
  EXPECT_EQ(at(3600), Condition::kBusy);
}

TEST_F(DiagnosisTest, TheWaitForTheCameraBeginsWithEachPlugging) {
  facts_.present = true;
  facts_.failure = OpenFailure::kNotFound;
  at(0);
  facts_.present = false;
  EXPECT_EQ(at(2000), Condition::kNotPluggedIn);
  facts_.present = true;
  EXPECT_EQ(at(3000), Condition::kStarting);
  EXPECT_EQ(at(5499), Condition::kStarting);
  EXPECT_EQ(at(5500), Condition::kNoCamera);
}

TEST_F(DiagnosisTest, NoFirstPictureIsNoSignal) {
  running(true, 0);
  EXPECT_EQ(at(0), Condition::kStarting);
  EXPECT_EQ(at(2499), Condition::kStarting);
  EXPECT_EQ(at(2500), Condition::kNoSignal);
  facts_.frames = 1;
  EXPECT_EQ(at(2600), Condition::kFine);
}

TEST_F(DiagnosisTest, PicturesThatStopAreAStall) {
  running(true, 10);
  EXPECT_EQ(at(0), Condition::kFine);
  EXPECT_EQ(at(1500), Condition::kFine);
  EXPECT_EQ(at(1501), Condition::kStalled);
  facts_.frames = 11;
  EXPECT_EQ(at(1502), Condition::kFine);
}

TEST_F(DiagnosisTest, ANewSessionStartsAfresh) {
  running(true, 10);
  at(0);
  facts_.open = false;
  EXPECT_EQ(at(5000), Condition::kStarting);
  facts_.open = true;
  facts_.frames = 0;
  EXPECT_EQ(at(6000), Condition::kStarting);
  EXPECT_EQ(at(8500), Condition::kNoSignal);
}

TEST_F(DiagnosisTest, APictureWithoutKeyboardIsSaid) {
  running(false, 10);
  EXPECT_EQ(at(0), Condition::kNoKeyboard);
}

TEST_F(DiagnosisTest, AKeyboardInterfaceThatMayNotBeOpenedIsNoPermission) {
  running(false, 10);
  facts_.keyboard_failure = OpenFailure::kPermission;
  facts_.keyboard_detail = "/dev/hidraw0: Permission denied";
  EXPECT_EQ(at(0), Condition::kNoPermission);
  EXPECT_NE(adviceFor(Condition::kNoPermission, facts_).text.find("/dev/hidraw0"), std::string::npos);
  facts_.keyboard_failure = OpenFailure::kOther;
  EXPECT_EQ(at(1), Condition::kNoKeyboard);
  facts_.keyboard_failure = OpenFailure::kPermission;
  facts_.proxy = true;
  EXPECT_EQ(at(2), Condition::kFine);
}

TEST(OpenError, CodesAreClassified) {
  EXPECT_EQ(classifyOpenError(0), OpenFailure::kNone);
  EXPECT_EQ(classifyOpenError(EACCES), OpenFailure::kPermission);
  EXPECT_EQ(classifyOpenError(EPERM), OpenFailure::kPermission);
  EXPECT_EQ(classifyOpenError(EBUSY), OpenFailure::kBusy);
  EXPECT_EQ(classifyOpenError(ENODEV), OpenFailure::kNotFound);
  EXPECT_EQ(classifyOpenError(EIO), OpenFailure::kOther);
}

TEST(Advice, EveryTroubleHasItsOwnWordTitleAndAdvice) {
  std::set<std::string> words;
  std::set<std::string> texts;
  for (Condition condition :
       {Condition::kNotPluggedIn, Condition::kNoPermission, Condition::kBusy, Condition::kOpenFailed,
        Condition::kNoCamera, Condition::kNoSignal, Condition::kStalled, Condition::kNoKeyboard}) {
    Advice advice = adviceFor(condition, {});
    EXPECT_TRUE(words.insert(advice.word).second) << advice.word;
    EXPECT_TRUE(texts.insert(advice.text).second) << advice.word;
    EXPECT_FALSE(advice.title.empty());
  }
}

TEST(Advice, NamesTheNodeOfAFailure) {
  DeviceFacts facts;
  facts.failure_detail = "/dev/video0: Permission denied";
  EXPECT_NE(adviceFor(Condition::kNoPermission, facts).text.find("/dev/video0"), std::string::npos);
}

}  // namespace
}  // namespace mirn
