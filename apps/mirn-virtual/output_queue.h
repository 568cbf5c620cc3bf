// Lines on their way to a descriptor whose reader may be slow, or gone.
#pragma once

#include <string>
#include <string_view>

#include "virtual/usb/owned_descriptor.h"

namespace mirn {

// Bound to one thread, which never waits for the reader: what does not fit stays here.
class OutputQueue {
 public:
  // Borrows the descriptor. Its mode is left alone: it may be shared with other programs (a terminal, a pipe).
  explicit OutputQueue(int descriptor);

  // Sends at once what goes out.
  void add(std::string_view text);
  // Sends on: call it when poll() finds the descriptor writable or in error. Text that nobody can ever take is dropped.
  void flush();

  bool pending() const { return !text_.empty(); }
  size_t pendingBytes() const { return text_.size(); }
  int descriptor() const { return descriptor_; }

 private:
  // As ::write, without waiting.
  ssize_t write(std::string_view text) const;

  const int descriptor_;
  bool socket_ = false;
  OwnedDescriptor unblocked_;  // the same pipe or terminal, opened once more; none where that fails
  std::string text_;
};

}  // namespace mirn
