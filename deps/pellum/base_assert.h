// Assertions of the base library: checked in every build, reported on standard error, never fatal. The caller of a
// failed assertion leaves its object as it was.
#pragma once

namespace mirn {

// Returns `holds`; reports "[where] assertion failed: expression" when it is false. Reentrant.
bool baseAssert(bool holds, const char* expression, const char* where);

}  // namespace mirn
