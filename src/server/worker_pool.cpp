#include "server/worker_pool.hpp"

#include <system_error>
#include <thread>

namespace kx::server {

WorkerPool::WorkerPool(int max_threads, std::chrono::milliseconds idle_limit)
    : core_(std::make_shared<Core>()) {
  core_->max_threads = max_threads < 1 ? 1 : max_threads;
  core_->idle_limit = idle_limit;
}

WorkerPool::~WorkerPool() {
  std::lock_guard guard(core_->lock);
  core_->ending = true;
  core_->work.notify_all();
}

// Threads start one at a time, and each new one starts the next only while jobs
// still wait: a burst of quick jobs is done by a few threads, while jobs stuck
// behind long ones get a thread each.
void WorkerPool::submit(std::function<void()> job) {
  std::unique_lock guard(core_->lock);
  core_->jobs.push_back(std::move(job));
  if (core_->idle >= static_cast<int>(core_->jobs.size())) {
    core_->work.notify_one();
    return;
  }
  start_thread(core_, guard);
}

void WorkerPool::start_thread(const std::shared_ptr<Core>& core,
                              std::unique_lock<std::mutex>& guard) {
  if (core->starting || core->threads >= core->max_threads) return;
  ++core->threads;
  core->starting = true;
  guard.unlock();
  try {
    // Detached: a thread holds the core, never the pool, so the last job may
    // outlive the pool's owner.
    std::thread(run, core).detach();
    guard.lock();
  } catch (const std::system_error&) {
    // Out of threads: the job waits for one already running.
    guard.lock();
    --core->threads;
    core->starting = false;
  }
}

int WorkerPool::threads() const {
  std::lock_guard guard(core_->lock);
  return core_->threads;
}

void WorkerPool::run(std::shared_ptr<Core> core) {
  std::unique_lock guard(core->lock);
  core->starting = false;
  for (;;) {
    while (core->jobs.empty()) {
      if (core->ending) {
        --core->threads;
        return;
      }
      ++core->idle;
      bool woken = core->work.wait_for(guard, core->idle_limit,
                                       [&] { return !core->jobs.empty() || core->ending; });
      --core->idle;
      if (!woken) {
        --core->threads;
        return;
      }
    }
    std::function<void()> job = std::move(core->jobs.front());
    core->jobs.pop_front();
    if (!core->jobs.empty() && core->idle == 0) start_thread(core, guard);
    guard.unlock();
    try {
      job();
    } catch (...) {
      // One failing handler ends its own request, not the thread.
    }
    job = nullptr;  // its captures go before the next wait
    guard.lock();
  }
}

}  // namespace kx::server
