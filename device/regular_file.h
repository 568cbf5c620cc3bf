// Opening files that others may have prepared: only regular files, never waiting for a pipe's other end, and for
// writing never through a symbolic link. Reentrant.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "device/owned_fd.h"

namespace mirn {

struct RegularFile {
  OwnedFd fd;  // invalid: it could not be opened, or is no regular file
  uint64_t size = 0;
};

// To read from, a symbolic link is as good as its target.
RegularFile openForReading(const std::string& path);

// A new, empty file at `path` with mode 0600, to write and to read. It takes the place of an older one, which whoever
// has it open keeps. Refuses symbolic links, whatever is no regular file, files of other users, files with a second
// name, and the file that `not_this` is.
RegularFile openForReplacing(const std::string& path, const RegularFile& not_this);

// Up to `size` bytes from the present position; less only at the end of the file. -1: a read error.
int64_t readFully(int fd, uint8_t* out, size_t size);

// False: a write error.
bool writeFully(int fd, const uint8_t* bytes, size_t size);

}  // namespace mirn
