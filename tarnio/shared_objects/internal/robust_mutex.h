#pragma once

// A process-shared, robust, error-checking pthread mutex that lives in shared memory. When its
// holder dies, the next locker gets it with EOWNERDEAD; lock() then marks it consistent again
// and reports owner_died, so no process is left waiting for a dead one.

#include <pthread.h>

#include <chrono>
#include <string>

#include "tarnio/shared_objects/shared_block.h"

namespace Tarn::shared_objects::internal {

// Initialises the mutex at `mutex` in place. Throws TarnError "Could not create the lock of
// shared object '{name}': {system text}".
void init_robust_mutex(pthread_mutex_t* mutex, const std::string& name);

// What a lock call on `mutex` that returned `rc` means; marks the mutex consistent when its
// holder died. Throws std::runtime_error "Shared object '{name}' is already locked by this
// thread." and TarnError "Could not lock shared object '{name}': {system text}".
SharedBlock::LockResult lock_result(int rc, pthread_mutex_t* mutex, const std::string& name);

// Locks, waiting at most `timeout`; throws as lock_result does.
SharedBlock::LockResult lock_robust_mutex_for(pthread_mutex_t* mutex, const std::string& name,
                                              std::chrono::milliseconds timeout);

}  // namespace Tarn::shared_objects::internal
