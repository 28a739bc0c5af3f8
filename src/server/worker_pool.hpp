#pragma once
// Threads for the handlers: a job waits only while every thread is busy and the
// pool is at its cap (or a new thread is on its way). A thread is started when a
// job finds none idle and ends after it has idled for a while, so a quiet server
// keeps no threads.
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>

namespace kx::server {

class WorkerPool {
 public:
  explicit WorkerPool(int max_threads,
                      std::chrono::milliseconds idle_limit = std::chrono::seconds(10));
  // Idle threads end at once; busy ones after their job. Nothing waits for them.
  ~WorkerPool();
  WorkerPool(const WorkerPool&) = delete;
  WorkerPool& operator=(const WorkerPool&) = delete;

  void submit(std::function<void()> job);

  int threads() const;

 private:
  struct Core {
    mutable std::mutex lock;
    std::condition_variable work;
    std::deque<std::function<void()>> jobs;
    int threads = 0;
    int idle = 0;
    int max_threads = 1;
    std::chrono::milliseconds idle_limit{0};
    bool ending = false;
    bool starting = false;  // a thread is on its way
  };
  static void run(std::shared_ptr<Core> core);
  static void start_thread(const std::shared_ptr<Core>& core, std::unique_lock<std::mutex>& guard);

  std::shared_ptr<Core> core_;
};

}  // namespace kx::server
