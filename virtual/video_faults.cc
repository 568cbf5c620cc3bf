// The text form of picture faults.
#include <charconv>
#include <limits>
#include <optional>

#include "virtual/virtual_capture.h"

namespace mirn {
namespace {

struct KindName {
  std::string_view name;
  VideoFaultKind kind;
  bool takes_value;
};

constexpr KindName kKinds[] = {
    {"truncate", VideoFaultKind::kTruncate, true}, {"corrupt", VideoFaultKind::kCorrupt, false},
    {"zero", VideoFaultKind::kZero, false},        {"flag", VideoFaultKind::kFlag, false},
    {"lose", VideoFaultKind::kLose, false},        {"stall", VideoFaultKind::kStall, true},
    {"unplug", VideoFaultKind::kUnplug, false},    {"fail", VideoFaultKind::kFail, false},
};

constexpr std::string_view kSeparators = ",; \t\r\n";
constexpr uint64_t kForever = std::numeric_limits<uint64_t>::max();

template <typename Number>
std::optional<Number> wholeNumber(std::string_view text) {
  Number number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size()) {
    return std::nullopt;
  }
  return number;
}

// N | N-M | N+ | */N | *
bool parseWhen(std::string_view text, VideoFault* fault) {
  if (text == "*") {
    fault->last = kForever;
    return true;
  }
  if (text.starts_with("*/")) {
    const auto step = wholeNumber<uint64_t>(text.substr(2));
    fault->first = fault->step = step.value_or(0);
    fault->last = kForever;
    return fault->step > 0;
  }
  const size_t dash = text.find('-');
  const bool open = text.ends_with('+');
  const auto first = wholeNumber<uint64_t>(text.substr(0, open ? text.size() - 1 : dash));
  const auto last = dash != std::string_view::npos ? wholeNumber<uint64_t>(text.substr(dash + 1)) : first;
  fault->first = first.value_or(0);
  fault->last = open ? kForever : last.value_or(0);
  return fault->first > 0 && fault->last >= fault->first;
}

bool parseFault(std::string_view text, VideoFault* fault) {
  const size_t at = text.find('@');
  if (at == std::string_view::npos) {
    return false;
  }
  std::string_view kind = text.substr(0, at);
  const size_t equals = kind.find('=');
  const bool has_value = equals != std::string_view::npos;
  if (has_value) {
    const auto value = wholeNumber<uint32_t>(kind.substr(equals + 1));
    if (!value) {
      return false;
    }
    fault->value = *value;
    kind = kind.substr(0, equals);
  }
  for (const KindName& known : kKinds) {
    if (known.name == kind) {
      fault->kind = known.kind;
      return (known.takes_value || !has_value) && parseWhen(text.substr(at + 1), fault);
    }
  }
  return false;
}

}  // namespace

bool parseVideoFaults(std::string_view text, std::vector<VideoFault>* plan, std::string* error) {
  std::vector<VideoFault> faults;
  while (true) {
    const size_t begin = text.find_first_not_of(kSeparators);
    if (begin == std::string_view::npos) {
      break;
    }
    text.remove_prefix(begin);
    const std::string_view word = text.substr(0, text.find_first_of(kSeparators));
    text.remove_prefix(word.size());
    VideoFault fault;
    if (!parseFault(word, &fault)) {
      *error = "not understood: \"" + std::string(word) + "\" (KIND[=VALUE]@WHEN, for example stall=800@30)";
      return false;
    }
    faults.push_back(fault);
  }
  *plan = std::move(faults);
  return true;
}

}  // namespace mirn
