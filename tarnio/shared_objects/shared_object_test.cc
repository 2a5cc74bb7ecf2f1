#include "tarnio/shared_objects/shared_object.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "tarnio/testing/expect_throw_message.h"

extern char** environ;

namespace {

using namespace std::chrono_literals;
using Counter = Tarn::Object<std::uint64_t>;

// A name of this test process alone, removed before and after the test.
class UniqueName {
 public:
  explicit UniqueName(const std::string& stem)
      : name_("tarnio_test." + std::to_string(::getpid()) + "." + stem) {
    Tarn::remove_object(name_);
  }
  ~UniqueName() { Tarn::remove_object(name_); }
  operator const std::string&() const { return name_; }

 private:
  std::string name_;
};

// The helper process running `arguments`, its standard output on a pipe.
struct Helper {
  pid_t pid = -1;
  int output = -1;

  explicit Helper(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), TARNIO_SHARED_OBJECT_HELPER);
    std::vector<char*> argv;
    for (std::string& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    int pipe_ends[2];
    EXPECT_EQ(::pipe(pipe_ends), 0);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, pipe_ends[1], STDOUT_FILENO);
    posix_spawn_file_actions_addclose(&actions, pipe_ends[0]);
    EXPECT_EQ(posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ), 0);
    posix_spawn_file_actions_destroy(&actions);
    ::close(pipe_ends[1]);
    output = pipe_ends[0];
  }
  ~Helper() {
    if (pid > 0) {
      ::kill(pid, SIGKILL);
      wait();
    }
    ::close(output);
  }

  // Everything the helper printed until it closed its output or printed a line.
  std::string read_line() const {
    std::string line;
    char c = 0;
    while (::read(output, &c, 1) == 1 && c != '\n') line += c;
    return line;
  }
  // The exit status; -1 when killed by a signal.
  int wait() {
    int status = 0;
    ::waitpid(pid, &status, 0);
    pid = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
};

TEST(SharedObject, TwoProcessesIncrementingLoseNothing) {
  const UniqueName name("counter");
  Counter counter(name, 5);
  ASSERT_TRUE(counter.created());
  Helper first({"increment", name, "10000"});
  Helper second({"increment", name, "10000"});
  for (int i = 0; i < 1000; ++i) ++*counter.lock();
  EXPECT_EQ(first.wait(), 0);
  EXPECT_EQ(second.wait(), 0);
  EXPECT_EQ(counter.load(), 5u + 10000 + 10000 + 1000);
  EXPECT_FALSE(Counter(name).created());
}

TEST(SharedObject, HolderKilledWhileLockedHandsTheLockOnWithNotice) {
  const UniqueName name("held");
  Counter counter(name);
  Helper holder({"hold", name, "77"});
  ASSERT_EQ(holder.read_line(), "locked");
  EXPECT_FALSE(counter.try_lock_for(50ms).has_value());
  ::kill(holder.pid, SIGKILL);
  EXPECT_EQ(holder.wait(), -1);
  {
    auto value = counter.lock();
    EXPECT_TRUE(value.owner_died());
    EXPECT_EQ(*value, 77u);
    *value = 78;
  }
  auto again = counter.try_lock_for(1s);
  ASSERT_TRUE(again.has_value());
  EXPECT_FALSE(again->owner_died());
  EXPECT_EQ(**again, 78u);
}

TEST(SharedObject, RemoveClearsWhatACrashedCreatorLeft) {
  const UniqueName name("stale");
  {
    Helper creator({"hold", name, "9"});
    ASSERT_EQ(creator.read_line(), "locked");
  }  // killed holding the lock of the object it made
  EXPECT_THROW_MESSAGE(Counter::create(name), TarnError,
                       "Shared object '" + std::string(name) + "' already exists.");
  EXPECT_TRUE(Tarn::remove_object(name));
  EXPECT_FALSE(Tarn::remove_object(name));
  EXPECT_FALSE(Tarn::find_object<std::uint64_t>(name).has_value());
  Counter fresh = Counter::create(name, 1);
  auto value = fresh.try_lock_for(1s);
  ASSERT_TRUE(value.has_value());
  EXPECT_FALSE(value->owner_died());
  EXPECT_EQ(**value, 1u);
}

TEST(SharedObject, OpensBySameNameShareOneValueOfOneType) {
  const UniqueName name("shape");
  const std::string quoted = "'" + std::string(name) + "'";
  EXPECT_THROW_MESSAGE(Counter::open(name), TarnError, "No shared object named " + quoted + ".");
  Tarn::Object<std::array<double, 3>> position(name, {1, 2, 3});
  auto found = Tarn::find_object<std::array<double, 3>>(name);
  ASSERT_TRUE(found.has_value());
  found->store({4, 5, 6});
  EXPECT_EQ(position.load(), (std::array<double, 3>{4, 5, 6}));

  using Pair = Tarn::Object<std::array<double, 2>>;
  EXPECT_THROW_MESSAGE(Pair{name}, TarnError,
                       "Shared object " + quoted +
                           " holds 24 bytes of type 'std::array<double, 3ul>', not 16 bytes of "
                           "type 'std::array<double, 2ul>'.");
  using Integers = Tarn::Object<std::array<std::uint64_t, 3>>;
  using Floats = std::array<float, 6>;
  EXPECT_THROW(Integers{name}, TarnError);
  EXPECT_THROW(Tarn::find_object<Floats>(name), TarnError);

  auto held = position.lock();
  EXPECT_THROW_MESSAGE(position.lock(), std::runtime_error,
                       "Shared object " + quoted + " is already locked by this thread.");
}

TEST(SharedObject, NamesThatCouldLeaveTheirPlaceAreRefused) {
  for (const std::string& bad : std::vector<std::string>{
           "", "a/b", "../x", "a\\b", ".hidden", "sp ace", "tab\t", std::string(201, 'n')}) {
    EXPECT_THROW_MESSAGE(Counter{bad}, std::invalid_argument,
                         "Invalid shared object name '" + bad + "'.");
    EXPECT_THROW(Tarn::remove_object(bad), std::invalid_argument);
  }
}

}  // namespace
