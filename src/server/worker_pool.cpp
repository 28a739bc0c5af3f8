#include "server/worker_pool.hpp"

#include <system_error>
#include <thread>

namespace kx::server {
namespace {

// Threads on quick jobs at once: a few more than the cores of a small machine.
constexpr int kQuickThreads = 4;
// A job running longer than this is taken to wait on something (a long poll);
// shorter would count quick jobs that a busy machine merely preempted.
constexpr auto kLongJob = std::chrono::milliseconds(20);

}  // namespace

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

void WorkerPool::submit(std::function<void()> job) {
  std::unique_lock guard(core_->lock);
  core_->jobs.push_back(std::move(job));
  if (core_->idle >= static_cast<int>(core_->jobs.size())) {
    core_->work.notify_one();
    return;
  }
  maybe_start(core_, guard);
}

void WorkerPool::maintain() {
  std::unique_lock guard(core_->lock);
  if (!core_->jobs.empty() && core_->idle == 0) maybe_start(core_, guard);
}

bool WorkerPool::jobs_waiting() const {
  std::lock_guard guard(core_->lock);
  return !core_->jobs.empty();
}

int WorkerPool::threads() const {
  std::lock_guard guard(core_->lock);
  return core_->threads;
}

// Starts one thread unless one is on its way, the cap is reached, or enough
// threads are on quick jobs that will free them soon.
void WorkerPool::maybe_start(const std::shared_ptr<Core>& core,
                             std::unique_lock<std::mutex>& guard) {
  if (core->starting || core->threads >= core->max_threads) return;
  const Clock::time_point recent = Clock::now() - kLongJob;
  // Idle threads count too: the ones already woken for earlier jobs may simply
  // not have run yet on a busy machine.
  int quick = core->idle;
  for (const Clock::time_point& since : core->busy_since)
    if (since != Clock::time_point::max() && since > recent) ++quick;
  if (quick >= kQuickThreads) return;
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

void WorkerPool::run(std::shared_ptr<Core> core) {
  std::unique_lock guard(core->lock);
  core->starting = false;
  auto mine = core->busy_since.insert(core->busy_since.end(), Clock::time_point::max());
  for (;;) {
    while (core->jobs.empty()) {
      if (core->ending) break;
      ++core->idle;
      bool woken = core->work.wait_for(guard, core->idle_limit,
                                       [&] { return !core->jobs.empty() || core->ending; });
      --core->idle;
      if (!woken) break;
    }
    if (core->jobs.empty()) break;
    std::function<void()> job = std::move(core->jobs.front());
    core->jobs.pop_front();
    *mine = Clock::now();
    if (!core->jobs.empty() && core->idle == 0) maybe_start(core, guard);
    guard.unlock();
    try {
      job();
    } catch (...) {
      // One failing handler ends its own request, not the thread.
    }
    job = nullptr;  // its captures go before the next wait
    guard.lock();
    *mine = Clock::time_point::max();
  }
  core->busy_since.erase(mine);
  --core->threads;
}

}  // namespace kx::server
