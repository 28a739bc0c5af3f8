#pragma once
// Threads for the handlers. Quick jobs share a few threads (more would only take
// turns on the same cores); a job that has run for a while (a long poll, a long
// command) no longer counts, so the jobs behind it get a thread. Threads start
// one at a time and end after idling for a while, so a quiet server keeps none.
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <list>
#include <memory>
#include <mutex>

namespace kx::server {

class WorkerPool {
 public:
  using Clock = std::chrono::steady_clock;

  explicit WorkerPool(int max_threads,
                      std::chrono::milliseconds idle_limit = std::chrono::seconds(2));
  // Idle threads end at once; busy ones after their job. Nothing waits for them.
  ~WorkerPool();
  WorkerPool(const WorkerPool&) = delete;
  WorkerPool& operator=(const WorkerPool&) = delete;

  void submit(std::function<void()> job);

  // Starts a thread when jobs wait behind long ones; the owner calls it now and
  // then while jobs_waiting().
  void maintain();
  bool jobs_waiting() const;

  int threads() const;

 private:
  struct Core {
    mutable std::mutex lock;
    std::condition_variable work;
    std::deque<std::function<void()>> jobs;
    std::list<Clock::time_point> busy_since;  // one per thread; max() while idle
    int threads = 0;
    int idle = 0;
    int max_threads = 1;
    std::chrono::milliseconds idle_limit{0};
    bool ending = false;
    bool starting = false;  // a thread is on its way
  };
  static void run(std::shared_ptr<Core> core);
  static void maybe_start(const std::shared_ptr<Core>& core, std::unique_lock<std::mutex>& guard);

  std::shared_ptr<Core> core_;
};

}  // namespace kx::server
