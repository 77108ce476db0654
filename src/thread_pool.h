#ifndef KOVRAEXECUTOR_THREAD_POOL_H_
#define KOVRAEXECUTOR_THREAD_POOL_H_

#include <condition_variable>
#include <exception>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace kovra {
namespace trenkit {
namespace kovraexecutor {

struct ErrorContext;

// Process-wide pool of threads kept alive between calls, so the tiled kernels
// do not pay for thread creation on every execute. Work is handed out as
// numbered tasks; which thread runs a task never changes what it computes.
class ThreadPool {
 public:
  static ThreadPool& instance();

  // Number of threads that run tasks, the caller included; at least 1.
  void set_num_threads(int threads);
  int num_threads() const;

  // Runs task(0) ... task(count - 1) and returns when all have finished.
  // Calls made from inside a task run inline on the calling thread. Tasks run
  // under the caller's error policy and node (common.h); the first exception
  // a task throws is rethrown here once no task is running any more.
  void run(int count, const std::function<void(int)>& task);

  ~ThreadPool();

 private:
  ThreadPool();
  void _resize(int workers);
  void _worker_loop(int worker_index);
  void _drain();

  mutable std::mutex mutex_;
  std::condition_variable work_ready_;
  std::condition_variable work_done_;
  std::vector<std::thread> workers_;
  int wanted_threads_ = 1;
  bool stopping_ = false;
  // The current job.
  const std::function<void(int)>* task_ = nullptr;
  const ErrorContext* context_ = nullptr;
  std::exception_ptr error_;
  int task_count_ = 0;
  int next_task_ = 0;
  int unfinished_ = 0;
  unsigned long generation_ = 0;
  std::mutex run_mutex_;
};

// Runs fn(0) ... fn(count - 1): on the pool when `work` (a rough count of
// arithmetic operations) pays for handing tasks out, inline otherwise. Each
// task writes only its own part of the output, so results never depend on
// the number of threads.
constexpr long long kMinParallelWork = 1 << 16;
template <typename Fn>
void parallel_for(int count, long long work, Fn fn) {
  if (work < kMinParallelWork || count < 2) {
    for (int i = 0; i < count; ++i) fn(i);
    return;
  }
  ThreadPool::instance().run(count, [&fn](int i) { fn(i); });
}

}  // namespace kovraexecutor
}  // namespace trenkit
}  // namespace kovra

#endif  // KOVRAEXECUTOR_THREAD_POOL_H_
