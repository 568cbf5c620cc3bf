// A look at something each time that a file is read. The program is linked so that its own calls of read(2) pass here.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace mirn::test {

// One at a time. Bound to the thread that made it: only its reads count.
class FileReads {
 public:
  FileReads(const std::string& path, std::function<int()> look);
  ~FileReads();
  FileReads(const FileReads&) = delete;
  FileReads& operator=(const FileReads&) = delete;

  // What `look` has answered, read by read.
  std::vector<int> observed() const;
};

}  // namespace mirn::test
