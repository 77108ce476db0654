#include "thread_pool.h"

#include <algorithm>

#include "common.h"

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

namespace {
thread_local bool tls_inside_task = false;
}

ThreadPool& ThreadPool::instance() {
  static ThreadPool pool;
  return pool;
}

ThreadPool::ThreadPool() {
  const unsigned hw = std::thread::hardware_concurrency();
  set_num_threads(hw == 0 ? 1 : static_cast<int>(hw));
}

ThreadPool::~ThreadPool() { _resize(0); }

void ThreadPool::set_num_threads(int threads) {
  std::lock_guard<std::mutex> run_lock(run_mutex_);
  threads = std::max(1, std::min(threads, 256));
  {
    std::lock_guard<std::mutex> lock(mutex_);
    wanted_threads_ = threads;
  }
  _resize(threads - 1);
}

int ThreadPool::num_threads() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return wanted_threads_;
}

void ThreadPool::_resize(int workers) {
  if (static_cast<int>(workers_.size()) == workers) return;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
  }
  work_ready_.notify_all();
  for (auto& t : workers_) t.join();
  workers_.clear();
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = false;
  }
  for (int i = 0; i < workers; ++i) workers_.emplace_back(&ThreadPool::_worker_loop, this, i);
}

void ThreadPool::_drain() {
  // Takes tasks until none are left; called with mutex_ unlocked. A task that
  // throws (a failed check under ErrorPolicy::kThrow) is recorded for run() to
  // rethrow and the tasks not yet started are skipped; each still counts as
  // finished, so the caller always waits for every worker to leave the job.
  std::unique_lock<std::mutex> lock(mutex_);
  while (task_ != nullptr && next_task_ < task_count_) {
    const int index = next_task_++;
    const std::function<void(int)>* task = task_;
    const ErrorContext* context = context_;
    const bool skip = error_ != nullptr;
    lock.unlock();
    std::exception_ptr error;
    if (!skip) {
      // The caller's policy and node, so that a task fails as the caller would.
      ScopedErrorContext scoped(*context);
      tls_inside_task = true;
      try {
        (*task)(index);
      } catch (...) {
        error = std::current_exception();
      }
      tls_inside_task = false;
    }
    lock.lock();
    if (error != nullptr && error_ == nullptr) error_ = error;
    if (--unfinished_ == 0) work_done_.notify_all();
  }
}

void ThreadPool::_worker_loop(int) {
  unsigned long seen = 0;
  for (;;) {
    {
      std::unique_lock<std::mutex> lock(mutex_);
      work_ready_.wait(lock, [&] { return stopping_ || generation_ != seen; });
      if (stopping_) return;
      seen = generation_;
    }
    _drain();
  }
}

void ThreadPool::run(int count, const std::function<void(int)>& task) {
  if (count <= 0) return;
  if (tls_inside_task || count == 1) {
    for (int i = 0; i < count; ++i) task(i);
    return;
  }
  std::lock_guard<std::mutex> run_lock(run_mutex_);
  if (workers_.empty()) {
    for (int i = 0; i < count; ++i) task(i);
    return;
  }
  const ErrorContext context = ErrorContext::current();
  {
    std::lock_guard<std::mutex> lock(mutex_);
    task_ = &task;
    context_ = &context;
    task_count_ = count;
    next_task_ = 0;
    unfinished_ = count;
    error_ = nullptr;
    ++generation_;
  }
  work_ready_.notify_all();
  _drain();
  std::exception_ptr error;
  {
    std::unique_lock<std::mutex> lock(mutex_);
    work_done_.wait(lock, [&] { return unfinished_ == 0; });
    task_ = nullptr;
    context_ = nullptr;
    std::swap(error, error_);
  }
  if (error != nullptr) std::rethrow_exception(error);
}

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra
