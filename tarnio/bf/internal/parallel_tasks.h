#pragma once

// ParallelTasks runs the tasks of one compressing or inflating segment on the threads that a
// ThreadingSupport grants: through its task launcher when it has one, otherwise on threads of
// its own, started on first use and joined by the destructor; with one thread and no launcher
// a task runs in the caller's thread when the caller waits for it. A task that nobody has
// started yet when its caller waits for it runs in the caller's thread, so a launcher that runs
// its tasks late (or on the caller's own, busy pool) slows the work down but cannot stall it.
//
// TaskWindow is one ordered pipeline on it: at most `capacity` tasks in flight, collected
// oldest first, each with a slot number of its own (0 to capacity - 1, in turn) for the
// buffers it works on. A task's exception comes back to the caller's thread when the task is
// collected. A window's destructor waits for every task still in it, so no task outlives the
// buffers (or the caller's span) it works on.
//
// ParallelTasks and TaskWindow are used by one thread; the tasks run anywhere.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "tarnio/bf/threading_support.h"

namespace Tarn::bf::internal {

class ParallelTasks {
 public:
  // Thread counts above this are taken as this.
  static constexpr std::uint64_t kMaxThreads = 256;

  explicit ParallelTasks(ThreadingSupport threading);
  ~ParallelTasks();
  ParallelTasks(const ParallelTasks&) = delete;
  ParallelTasks& operator=(const ParallelTasks&) = delete;

  // How many tasks run at once, at least 1.
  std::size_t threads() const { return threads_; }
  // True when tasks run only in the caller's thread, as it waits for them.
  bool runs_inline() const { return threads_ == 1 && !threading_.task_launcher; }

  class Task;
  using Handle = std::shared_ptr<Task>;

  // Starts `work`. When the launcher (or starting a thread) throws, the task has run or been
  // waited for before the exception passes on.
  Handle launch(std::function<void()> work);
  // Waits until the task has run, running it here if nobody has started it, and rethrows the
  // exception it ended with.
  static void wait(const Handle& task);
  // The same without rethrowing.
  static void wait_quietly(const Handle& task) noexcept;

 private:
  struct Workers;
  void dispatch(const Handle& task);

  ThreadingSupport threading_;
  std::size_t threads_;
  std::unique_ptr<Workers> workers_;
};

class TaskWindow {
 public:
  // At most `capacity` (at least 1) tasks in flight.
  TaskWindow(ParallelTasks& tasks, std::size_t capacity);
  ~TaskWindow();
  TaskWindow(const TaskWindow&) = delete;
  TaskWindow& operator=(const TaskWindow&) = delete;

  std::size_t capacity() const { return ring_.size(); }
  std::size_t size() const { return count_; }
  bool empty() const { return count_ == 0; }
  bool full() const { return count_ == ring_.size(); }
  // The slot of the next task launched.
  std::size_t next_slot() const { return (oldest_ + count_) % ring_.size(); }

  // Launches `work` in slot next_slot(). Precondition: not full().
  void launch(std::function<void()> work);
  // Waits for the oldest task, removes it and returns its slot; then rethrows its exception,
  // if it ended with one. Precondition: not empty().
  std::size_t collect();
  // Waits for every task and removes it, ignoring their exceptions.
  void wait_all() noexcept;

 private:
  ParallelTasks& tasks_;
  std::vector<ParallelTasks::Handle> ring_;
  std::size_t oldest_ = 0;
  std::size_t count_ = 0;
};

}  // namespace Tarn::bf::internal
