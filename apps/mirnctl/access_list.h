// Whom a node's access control list lets in beside its owner and group: logging in at the computer grants a node so.
#pragma once

#include <string>
#include <string_view>

namespace mirn {

// "user anna rw, group 44 r"; empty when the node has no list or it can't be read.
std::string accessGrants(const std::string& node);

// The same of a list as the kernel hands it out. Pure but for the names of users and groups.
std::string grantsOf(std::string_view list);

}  // namespace mirn
