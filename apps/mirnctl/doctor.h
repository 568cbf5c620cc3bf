// From facts to checks, the one next step and an exit status. Pure.
#pragma once

#include <string>
#include <vector>

#include "apps/mirnctl/doctor_facts.h"
#include "apps/mirnctl/exit_status.h"

namespace mirn {

enum class CheckMark { kGood, kNote, kBad };

struct DoctorCheck {
  std::string name;  // "plugged-in", "nodes", "permission", "holders", "udev-rule", "formats"
  CheckMark mark = CheckMark::kGood;
  std::string text;
};

struct DoctorReport {
  std::vector<DoctorCheck> checks;
  std::string next_step;  // empty when nothing is to be done
  ExitStatus status = kExitOk;
};

DoctorReport judge(const DoctorFacts& facts);

// The four pictures that the library knows which this list lacks, e.g. "1920x1080 yuvs".
std::vector<std::string> missingFormats(const std::vector<PictureFormat>& formats);

}  // namespace mirn
