#include "tarnio/shared_objects/shared_object.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "tarnio/testing/expect_throw_message.h"

namespace {

using namespace std::chrono_literals;
using Counter = Tarn::Object<std::uint64_t>;

// A name of this test process alone, removed before and after the test.
struct UniqueName : std::string {
  explicit UniqueName(const std::string& stem)
      : std::string("tarnio_test." + std::to_string(::getpid()) + "." + stem) {
    Tarn::remove_object(*this);
  }
  ~UniqueName() { Tarn::remove_object(*this); }
};

// The helper program with `arguments` in a process of its own, its output on the pipe returned.
FILE* start_helper(const std::string& arguments) {
  return ::popen(("exec " TARNIO_SHARED_OBJECT_HELPER " " + arguments).c_str(), "r");
}

TEST(SharedObject, TwoProcessesIncrementingLoseNothing) {
  const UniqueName name("counter");
  Counter counter(name, 5);
  ASSERT_TRUE(counter.created());
  FILE* first = start_helper("increment " + name + " 10000");
  FILE* second = start_helper("increment " + name + " 10000");
  for (int i = 0; i < 1000; ++i) ++*counter.lock();
  EXPECT_EQ(::pclose(first), 0);
  EXPECT_EQ(::pclose(second), 0);
  EXPECT_EQ(counter.load(), 5u + 10000 + 10000 + 1000);
}

TEST(SharedObject, HolderKilledWhileLockedHandsTheLockOnAndRemoveClearsTheRest) {
  const UniqueName name("held");
  FILE* holder = start_helper("hold " + name + " 77");
  long pid = 0;
  ASSERT_EQ(std::fscanf(holder, "locked %ld", &pid), 1);
  Counter counter = Counter::open(name);
  EXPECT_FALSE(counter.try_lock_for(50ms).has_value());
  ::kill(static_cast<pid_t>(pid), SIGKILL);
  ::pclose(holder);
  {
    auto value = counter.lock();
    EXPECT_TRUE(value.owner_died());
    EXPECT_EQ(*value, 77u);
  }
  EXPECT_FALSE(counter.try_lock_for(std::chrono::milliseconds::max())->owner_died());

  EXPECT_THROW_MESSAGE(Counter::create(name), TarnError,
                       "Shared object '" + name + "' already exists.");
  EXPECT_TRUE(Tarn::remove_object(name));
  EXPECT_FALSE(Tarn::remove_object(name));
  EXPECT_FALSE(Tarn::find_object<std::uint64_t>(name).has_value());
  Counter fresh = Counter::create(name, 1);
  EXPECT_EQ(fresh.load(), 1u);
  EXPECT_EQ(counter.load(), 77u);  // the removed object lives on for those that hold it
}

TEST(SharedObject, OneNameHoldsOneValueOfOneType) {
  using Position = std::array<double, 3>;
  using Pair = std::array<double, 2>;
  using Integers = std::array<std::uint64_t, 3>;
  const UniqueName name("shape");
  EXPECT_THROW_MESSAGE(Counter::open(name), TarnError, "No shared object named '" + name + "'.");
  Tarn::Object<Position> position(name, {1, 2, 3});
  Tarn::find_object<Position>(name)->store({4, 5, 6});
  EXPECT_EQ(position.load(), (Position{4, 5, 6}));
  EXPECT_THROW_MESSAGE(Tarn::find_object<Pair>(name), TarnError,
                       "Shared object '" + name +
                           "' holds 24 bytes of type 'std::array<double, 3ul>', not 16 bytes of "
                           "type 'std::array<double, 2ul>'.");
  EXPECT_THROW(Tarn::find_object<Integers>(name), TarnError);
  auto held = position.lock();
  EXPECT_THROW_MESSAGE(position.lock(), std::runtime_error,
                       "Shared object '" + name + "' is already locked by this thread.");
}

TEST(SharedObject, NamesThatCouldLeaveTheirPlaceAreRefused) {
  for (const std::string& bad : std::vector<std::string>{"", "a/b", "../x", "a\\b", ".hidden",
                                                         "sp ace", std::string(201, 'n')}) {
    EXPECT_THROW_MESSAGE(Counter{bad}, std::invalid_argument,
                         "Invalid shared object name '" + bad + "'.");
    EXPECT_THROW(Tarn::remove_object(bad), std::invalid_argument);
  }
}

}  // namespace
