#include "tarnio/bf/internal/parallel_tasks.h"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <deque>
#include <exception>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <utility>

namespace Tarn::bf::internal {

class ParallelTasks::Task {
 public:
  explicit Task(std::function<void()> work) : work_(std::move(work)) {}

  // Runs the work unless someone else has claimed it; true when this call ran it.
  bool try_run() noexcept {
    if (claimed_.exchange(true)) return false;
    std::exception_ptr error;
    try {
      work_();
    } catch (...) {
      error = std::current_exception();
    }
    // What the work captured goes before anyone learns that it is done.
    work_ = nullptr;
    {
      const std::lock_guard lock(mutex_);
      error_ = std::move(error);
      done_ = true;
    }
    done_changed_.notify_all();
    return true;
  }

  // The error leaves the task with the waiter, so that it ends in the waiter's thread.
  std::exception_ptr wait() noexcept {
    try_run();
    std::unique_lock lock(mutex_);
    done_changed_.wait(lock, [this] { return done_; });
    return std::exchange(error_, nullptr);
  }

 private:
  std::function<void()> work_;
  std::atomic<bool> claimed_{false};
  std::mutex mutex_;
  std::condition_variable done_changed_;
  bool done_ = false;
  std::exception_ptr error_;
};

// The library's own threads, for a ThreadingSupport without launcher.
struct ParallelTasks::Workers {
  std::mutex mutex;
  std::condition_variable queue_changed;
  std::deque<Handle> queue;
  bool stopping = false;
  std::vector<std::jthread> threads;

  void run() {
    for (;;) {
      Handle task;
      {
        std::unique_lock lock(mutex);
        queue_changed.wait(lock, [this] { return stopping || !queue.empty(); });
        // Tasks still queued at the end are run by whoever waits for them.
        if (stopping) return;
        task = std::move(queue.front());
        queue.pop_front();
      }
      task->try_run();
    }
  }

  ~Workers() {
    {
      const std::lock_guard lock(mutex);
      stopping = true;
    }
    queue_changed.notify_all();
    threads.clear();
  }
};

ParallelTasks::ParallelTasks(ThreadingSupport threading)
    : threading_(std::move(threading)),
      threads_(static_cast<std::size_t>(
          std::clamp<std::uint64_t>(threading_.thread_count, 1, kMaxThreads))) {}

ParallelTasks::~ParallelTasks() = default;

ParallelTasks::Handle ParallelTasks::launch(std::function<void()> work) {
  auto task = std::make_shared<Task>(std::move(work));
  if (runs_inline()) return task;
  try {
    dispatch(task);
  } catch (...) {
    wait_quietly(task);
    throw;
  }
  return task;
}

void ParallelTasks::dispatch(const Handle& task) {
  if (threading_.task_launcher) {
    // The launched function holds the task alone, never this object.
    threading_.task_launcher([task] { task->try_run(); });
    return;
  }
  if (!workers_) workers_ = std::make_unique<Workers>();
  {
    const std::lock_guard lock(workers_->mutex);
    workers_->queue.push_back(task);
  }
  workers_->queue_changed.notify_one();
  if (workers_->threads.size() < threads_) {
    workers_->threads.emplace_back([workers = workers_.get()] { workers->run(); });
  }
}

void ParallelTasks::wait(const Handle& task) {
  if (std::exception_ptr error = task->wait()) std::rethrow_exception(error);
}

void ParallelTasks::wait_quietly(const Handle& task) noexcept { task->wait(); }

TaskWindow::TaskWindow(ParallelTasks& tasks, std::size_t capacity)
    : tasks_(tasks), ring_(std::max<std::size_t>(capacity, 1)) {}

TaskWindow::~TaskWindow() { wait_all(); }

void TaskWindow::launch(std::function<void()> work) {
  if (full()) throw std::logic_error("Task window is full.");
  // The ring has room for the handle before the task starts, so a started task is always
  // tracked.
  ring_[next_slot()] = tasks_.launch(std::move(work));
  ++count_;
}

std::size_t TaskWindow::collect() {
  if (empty()) throw std::logic_error("Task window is empty.");
  const std::size_t slot = oldest_;
  const ParallelTasks::Handle task = std::move(ring_[slot]);
  oldest_ = (oldest_ + 1) % ring_.size();
  --count_;
  ParallelTasks::wait(task);
  return slot;
}

void TaskWindow::wait_all() noexcept {
  while (!empty()) {
    const ParallelTasks::Handle task = std::move(ring_[oldest_]);
    oldest_ = (oldest_ + 1) % ring_.size();
    --count_;
    ParallelTasks::wait_quietly(task);
  }
}

}  // namespace Tarn::bf::internal
