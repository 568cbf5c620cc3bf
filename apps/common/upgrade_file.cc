#include "apps/common/upgrade_file.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "plugin/mirn_host.h"

namespace mirn {
namespace {

bool holdsHexEnding(const std::string& text) {
  return text.find(".hex") != std::string::npos || text.find(".HEX") != std::string::npos;
}

bool namedLikeHex(const std::string& path) {
  std::string name = std::filesystem::path(path).filename().string();
  std::ranges::transform(name, name.begin(),
                         [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; });
  return name.ends_with(".hex") || name.ends_with(".ihex");
}

// A mark with a hexadecimal number behind it, as the first thing in the file; editors put blanks and marks before it.
bool beginsLikeHex(const std::string& begin) {
  size_t at = begin.starts_with("\xEF\xBB\xBF") ? 3 : 0;
  at = begin.find_first_not_of(" \t\r\n", at);
  if (at == std::string::npos || begin[at] != ':') {
    return false;
  }
  constexpr size_t kDigits = 2;
  size_t end = begin.find_first_not_of("0123456789abcdefABCDEF", at + 1);
  return (end == std::string::npos ? begin.size() : end) - at > kDigits;
}

// Under which name the library takes it for what it is.
std::string takenForTextAdvice(const std::string& path) {
  std::filesystem::path name(path);
  std::string advice = path + " looks like Intel HEX but would be sent as text: ";
  if (holdsHexEnding(name.parent_path().string())) {
    return advice + "move it to a directory without \".hex\" in its path.";
  }
  std::filesystem::path stem = name.filename();
  while (namedLikeHex(stem.string()) && stem.has_extension()) {
    stem = stem.stem();
  }
  return advice + (holdsHexEnding(stem.string())
                       ? "give it a name with \".hex\" at its end alone."
                       : "rename it to " + (name.parent_path() / (stem.string() + ".hex")).string() + ".");
}

}  // namespace

UpgradeFile checkUpgradeFile(const std::string& path) {
  UpgradeFile file;
  file.path = path;
  auto refuse = [&](std::string reason) {
    file.reason = std::move(reason);
    return file;
  };
  std::error_code error;
  if (!std::filesystem::is_regular_file(path, error)) {
    return refuse(error ? path + ": " + error.message() : path + " is no regular file.");
  }
  file.file_bytes = std::filesystem::file_size(path, error);
  if (error) {
    return refuse(path + ": " + error.message());
  }
  std::ifstream stream(path, std::ios::binary);
  if (!stream) {
    return refuse(path + ": " + std::strerror(errno));
  }
  HostHexCheck check = hostCheckHexFile(path);
  file.hex = check.hexFile;
  file.image_bytes = file.hex ? check.imageBytes : file.file_bytes;
  if (!check.exact) {
    return refuse(path + (check.line != 0 ? ", line " + std::to_string(check.line) : "") + ": " + check.reason);
  }
  constexpr size_t kLookedAt = 256;
  std::string begin(kLookedAt, '\0');
  stream.read(begin.data(), static_cast<std::streamsize>(begin.size()));
  begin.resize(static_cast<size_t>(stream.gcount()));
  if (!file.hex && (namedLikeHex(path) || beginsLikeHex(begin))) {
    return refuse(takenForTextAdvice(path));
  }
  file.chunks = chunksOf(file.image_bytes);
  if (file.chunks == 0) {
    return refuse(path + " is empty.");
  }
  if (file.chunks > kMostChunks) {
    return refuse(path + " is too large: the device takes at most " + std::to_string(kMostChunks) +
                  " chunks of 1024 bytes.");
  }
  file.ok = true;
  return file;
}

}  // namespace mirn
