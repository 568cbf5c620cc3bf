#pragma once

// What operating system this is, for a person.

#include <string>

namespace mirn {

/// Name and version of the distribution and the kernel's release: "Debian GNU/Linux 12 (bookworm) 6.1.0-18-amd64".
/// "Linux" in place of a name that can't be read. Any thread.
std::string operatingSystemVersionString();

}  // namespace mirn
