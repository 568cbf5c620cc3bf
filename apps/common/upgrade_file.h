// Is a file one that an upgrade may send? Looked at before anything goes out.
#pragma once

#include <string>

#include "apps/common/upgrade_flow.h"

namespace mirn {

// Reads a HEX file record by record, because the upgrade itself converts without looking. The library knows one by its
// name alone and sends everything else as it is, so text that only looks like Intel HEX is refused here.
UpgradeFile checkUpgradeFile(const std::string& path);

}  // namespace mirn
