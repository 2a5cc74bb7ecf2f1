#include "tarnio/shared_objects/internal/robust_mutex.h"

#include <time.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>

#include "tarnio/errors/internal/os_error.h"
#include "tarnio/errors/internal/raise.h"

namespace Tarn::shared_objects::internal {
namespace {

using errors::internal::os_error_text;
using errors::internal::throw_tarn;

// A timeout beyond a year counts as a year, so that the arithmetic cannot overflow.
timespec monotonic_deadline(std::chrono::milliseconds timeout) {
  constexpr std::chrono::milliseconds kLongest = std::chrono::hours(24 * 365);
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  const auto ns = std::chrono::nanoseconds(now.tv_nsec) +
                  std::clamp(timeout, std::chrono::milliseconds(0), kLongest);
  now.tv_sec += static_cast<time_t>(std::chrono::duration_cast<std::chrono::seconds>(ns).count());
  now.tv_nsec = static_cast<long>((ns % std::chrono::seconds(1)).count());
  return now;
}

}  // namespace

void init_robust_mutex(pthread_mutex_t* mutex, const std::string& name) {
  pthread_mutexattr_t attributes;
  int rc = pthread_mutexattr_init(&attributes);
  if (rc == 0) rc = pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
  if (rc == 0) rc = pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST);
  if (rc == 0) rc = pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_ERRORCHECK);
  if (rc == 0) rc = pthread_mutex_init(mutex, &attributes);
  pthread_mutexattr_destroy(&attributes);
  if (rc != 0) {
    throw_tarn("Could not create the lock of shared object '{}': {}", name, os_error_text(rc));
  }
}

SharedBlock::LockResult lock_result(int rc, pthread_mutex_t* mutex, const std::string& name) {
  switch (rc) {
    case 0:
      return SharedBlock::LockResult::locked;
    case EOWNERDEAD:
      // The holder died: the lock is ours, and usable by everyone again once marked consistent.
      pthread_mutex_consistent(mutex);
      return SharedBlock::LockResult::owner_died;
    case ETIMEDOUT:
      return SharedBlock::LockResult::timed_out;
    case EDEADLK:
      throw std::runtime_error("Shared object '" + name + "' is already locked by this thread.");
    default:
      throw_tarn("Could not lock shared object '{}': {}", name, os_error_text(rc));
  }
}

SharedBlock::LockResult lock_robust_mutex_for(pthread_mutex_t* mutex, const std::string& name,
                                              std::chrono::milliseconds timeout) {
  const timespec deadline = monotonic_deadline(timeout);
  return lock_result(pthread_mutex_clocklock(mutex, CLOCK_MONOTONIC, &deadline), mutex, name);
}

}  // namespace Tarn::shared_objects::internal
