// The second process of the shared object tests, on a counter of type std::uint64_t:
//   increment NAME N   adds 1 to the counter N times, each under the lock and slowly
//   hold NAME VALUE    locks, stores VALUE, prints "locked PID" and waits, holding the lock,
//                      until it is killed

#include <sched.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <string>

#include "tarnio/shared_objects/shared_object.h"

int main(int argc, char** argv) {
  if (argc != 4) return 2;
  const std::string command = argv[1];
  Tarn::Object<std::uint64_t> counter(argv[2]);
  const std::uint64_t number = std::stoull(argv[3]);
  if (command == "increment") {
    for (std::uint64_t i = 0; i < number; ++i) {
      // Read, now and then give the processor away, write: without the lock, increments get
      // lost.
      auto value = counter.lock();
      const std::uint64_t old = *value;
      if (i % 16 == 0) sched_yield();
      *value = old + 1;
    }
  } else if (command == "hold") {
    auto value = counter.lock();
    *value = number;
    std::printf("locked %ld\n", static_cast<long>(::getpid()));
    std::fflush(stdout);
    for (;;) ::pause();
  }
  return 0;
}
