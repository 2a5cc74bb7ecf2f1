#pragma once

// Tarn::bf::StackHost: what a file stack needs of the file it lives in, implemented by FileImp;
// callers of the library do not implement or call it. The
// stack writes and reads through access(); begin_stack and link_stack put a new stack at the
// end of the file and into the chain; end_stack tells the file that the stack is no longer
// being written (committed, failed or cancelled). Not thread-safe.

#include <cstdint>

#include "tarnio/bf/disk_file_access.h"

namespace Tarn::bf {

class StackImp;

class StackHost {
 public:
  virtual DiskFileAccess& access() = 0;
  // The bytes moved per disk call and per conversion block.
  virtual std::uint64_t block_size() const = 0;
  // Claims the file for writing `stack`: writes the file header if it is still pending and
  // returns the position where the stack's header goes (the end of the file, where the file
  // position is left). Throws std::runtime_error "Read-only handle specified in write
  // function." on a read-only file and "Another stack of the file is still being written."
  // while one is.
  virtual std::uint64_t begin_stack(StackImp& stack) = 0;
  // Links the stack whose header was just written at `position` into the chain, and leaves
  // the file position where it was.
  virtual void link_stack(std::uint64_t position) = 0;
  // The stack claimed by begin_stack is done (committed or failed).
  virtual void end_stack(StackImp& stack) = 0;
  // Counts bytes written through the container.
  virtual void count_written(std::uint64_t bytes) = 0;
  // Marks the file sparse: a stack reserved space that stays unwritten until its data comes.
  virtual void mark_sparse() = 0;

 protected:
  ~StackHost() = default;
};

}  // namespace Tarn::bf
