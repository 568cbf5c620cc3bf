// os-release(5): how a distribution calls itself.
#pragma once

#include <initializer_list>
#include <string>

namespace mirn {

// PRETTY_NAME from the first of the files that has one, as valid UTF-8; "Linux" when none has.
std::string prettyNameFrom(std::initializer_list<std::string> paths);

}  // namespace mirn
