#pragma once

// SharedBlock: a named block of bytes in shared memory that every process of the machine can
// open by its name, with a lock that lives beside the bytes. Tarn::Object (shared_object.h)
// gives it a type; this class holds what does not depend on the type.
//
// The lock is a robust, process-shared mutex: when a process dies holding it, the next process
// that locks gets it, together with the news that the bytes are as the dead holder left them
// (LockResult::owner_died), and the lock works as before from then on. A live holder that never
// unlocks still blocks lock(); try_lock_for waits at most a given time.
//
// The block outlives the processes that use it until remove() takes its name away. A process
// that holds a block keeps its memory after remove(); a later open by the name makes a new one.
// One object belongs to one thread at a time; the lock is not recursive.

#include <chrono>
#include <cstddef>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "tarnio/export.h"

namespace Tarn {

class TARNIO_EXPORT SharedBlock {
 public:
  enum class Mode { create, open, open_or_create };
  enum class LockResult { locked, owner_died, timed_out };

  // Opens or creates the block `name`, which holds `initial.size()` bytes of the type `type`;
  // a new block starts with the bytes of `initial`. Throws std::invalid_argument "Invalid shared
  // object name '{}'." unless the name is 1 to 200 letters, digits, '_', '-' or '.' (not
  // first), and TarnError "Shared object '{}' already exists." (create), "No shared object
  // named '{}'." (open), "Shared object '{}' holds {} bytes of type '{}', not {} bytes of type
  // '{}'." (an existing block of another type or size) and "Could not open shared object '{}':
  // {system text}".
  SharedBlock(const std::string& name, Mode mode, std::string_view type,
              std::span<const std::byte> initial);
  // The block `name` when it exists; empty when there is none. Throws as the constructor does
  // for an invalid name or a block of another type or size.
  static std::optional<SharedBlock> find(const std::string& name, std::string_view type,
                                         std::size_t size);
  SharedBlock(SharedBlock&&) noexcept;
  SharedBlock& operator=(SharedBlock&&) noexcept;
  ~SharedBlock();

  const std::string& name() const;
  // True when this object made the block, false when it opened one that was there.
  bool created() const;
  // The block's bytes; read and write them only while holding the lock.
  std::byte* data() const;
  std::size_t size() const;

  // Waits for the lock. Returns locked or owner_died, never timed_out. Throws
  // std::runtime_error "Shared object '{}' is already locked by this thread." and TarnError
  // "Could not lock shared object '{}': {system text}".
  LockResult lock();
  // As lock(), but gives up after `timeout` and returns timed_out.
  LockResult try_lock_for(std::chrono::milliseconds timeout);
  void unlock();

  // Takes the name away from the block; false when there was no block of that name. Throws as
  // the constructor does for an invalid name.
  static bool remove(const std::string& name);

 private:
  struct Imp;
  explicit SharedBlock(std::unique_ptr<Imp> imp);

  std::unique_ptr<Imp> imp_;
};

}  // namespace Tarn
