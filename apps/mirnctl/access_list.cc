#include "apps/mirnctl/access_list.h"

#include <grp.h>
#include <pwd.h>
#include <sys/xattr.h>

#include <array>
#include <cstdint>
#include <vector>

namespace mirn {
namespace {

// linux/posix_acl_xattr.h and linux/posix_acl.h; all numbers are little-endian.
constexpr uint32_t kVersion = 2;
constexpr size_t kHeaderBytes = 4;
constexpr size_t kEntryBytes = 8;
constexpr uint32_t kUser = 0x02;
constexpr uint32_t kGroup = 0x08;
constexpr uint32_t kMask = 0x10;
constexpr uint32_t kMayRead = 4;
constexpr uint32_t kMayWrite = 2;

struct Entry {
  uint32_t tag = 0;
  uint32_t permissions = 0;
  uint32_t id = 0;
};

// `bytes` lie within the text.
uint32_t number(std::string_view text, size_t at, size_t bytes) {
  uint32_t value = 0;
  for (size_t i = 0; i < bytes; ++i) {
    value |= static_cast<uint32_t>(static_cast<unsigned char>(text[at + i])) << (8 * i);
  }
  return value;
}

std::string nameOf(const Entry& entry) {
  if (entry.tag == kUser) {
    passwd* user = getpwuid(entry.id);
    return "user " + (user != nullptr ? user->pw_name : std::to_string(entry.id));
  }
  group* members = getgrgid(entry.id);
  return "group " + (members != nullptr ? members->gr_name : std::to_string(entry.id));
}

}  // namespace

std::string grantsOf(std::string_view list) {
  if (list.size() < kHeaderBytes || (list.size() - kHeaderBytes) % kEntryBytes != 0 ||
      number(list, 0, kHeaderBytes) != kVersion) {
    return "";
  }
  std::vector<Entry> entries;
  uint32_t mask = kMayRead | kMayWrite;
  for (size_t at = kHeaderBytes; at < list.size(); at += kEntryBytes) {
    Entry entry{number(list, at, 2), number(list, at + 2, 2), number(list, at + 4, 4)};
    if (entry.tag == kMask) {
      mask &= entry.permissions;
    } else if (entry.tag == kUser || entry.tag == kGroup) {
      entries.push_back(entry);
    }
  }
  std::string text;
  for (const Entry& entry : entries) {
    uint32_t may = entry.permissions & mask;
    if (may != 0) {
      text += (text.empty() ? "" : ", ") + nameOf(entry) + " " + ((may & kMayRead) != 0 ? "r" : "") +
              ((may & kMayWrite) != 0 ? "w" : "");
    }
  }
  return text;
}

std::string accessGrants(const std::string& node) {
  constexpr size_t kMostBytes = 4096;
  std::array<char, kMostBytes> list{};
  ssize_t size = getxattr(node.c_str(), "system.posix_acl_access", list.data(), list.size());
  return size > 0 ? grantsOf({list.data(), static_cast<size_t>(size)}) : "";
}

}  // namespace mirn
