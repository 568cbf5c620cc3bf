// What our programs do before they start the library: a private place for its temporary file, and a standard output
// that belongs to the program alone.
#pragma once

#include <string>

namespace mirn {

// The library writes its temporary image to TMPDIR, taken as it stands with the file's name right behind it: without a
// slash at the end the file would stand beside that directory. Unless TMPDIR ends in a slash, this makes a private
// directory (mode 0700) below it, or below /tmp where it is unset or nothing can be made in it, and sets TMPDIR to that
// one with a slash at the end; the destructor removes the directory. Make one at the start of main().
class PrivateTempDir {
 public:
  PrivateTempDir();
  ~PrivateTempDir();
  PrivateTempDir(const PrivateTempDir&) = delete;
  PrivateTempDir& operator=(const PrivateTempDir&) = delete;

  // Empty when TMPDIR can be used as it is or nothing could be made.
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

// Without a standard input the next file that is opened would be taken for it: puts one there that can't be read. Call
// before anything is opened.
void fillMissingInput();

// The library prints plain lines to standard output, even after main(). A program whose output is data keeps a copy of
// the real descriptor: from then on everything that prints to standard output goes to standard error, for good.
// The copy, or -1 when there is no standard output. Call once, before any output.
int reserveStandardOutput();

// Standard error is silent from now on for everything that writes to its descriptor: the library's plain lines would
// drown the program's own. The copy is the program's own way to it; -1 when there is none.
int silenceStandardError();

// Writes all bytes; false when the reader is gone or the disk is full.
bool writeAll(int descriptor, const std::string& text);

}  // namespace mirn
