#include "apps/mirnctl/commands.h"
#include "apps/mirnctl/doctor.h"

namespace mirn {
namespace {

const char* wordOf(CheckMark mark) {
  switch (mark) {
    case CheckMark::kGood:
      return "ok";
    case CheckMark::kNote:
      return "note";
    case CheckMark::kBad:
      return "bad";
  }
  return "";
}

int runDoctor(Context& context) {
  DoctorFacts facts = context.world() != nullptr ? virtualDoctorFacts(*context.world()) : systemDoctorFacts();
  DoctorReport report = judge(facts);
  Json checks = Json::array();
  std::string text;
  for (const DoctorCheck& check : report.checks) {
    checks.push_back({{"check", check.name}, {"result", wordOf(check.mark)}, {"text", printable(check.text)}});
    std::string word = wordOf(check.mark);
    text += word + std::string(word.size() < 6 ? 6 - word.size() : 0, ' ') + printable(check.text) + "\n";
  }
  text += report.next_step.empty() ? "Nothing is to be done.\n" : "Next: " + report.next_step + "\n";
  Json fields = {{"checks", checks}, {"next", report.next_step}};
  if (report.status == kExitOk) {
    return context.report().success(text, fields);
  }
  if (context.report().json()) {
    return context.report().failure(report.status, report.next_step, fields);
  }
  context.report().text(text);
  return report.status;
}

}  // namespace

void addDoctorCommand(CLI::App& app, ChosenCommand& chosen) {
  CLI::App* command = app.add_subcommand(
      "doctor", "Is it plugged in, who may open it, who holds it, is it complete? Says the one next step");
  command->callback([&chosen] { chosen = &runDoctor; });
}

}  // namespace mirn
