#include "lang/session.hpp"

#include <exception>

#include "platform/process_info.hpp"

namespace kx::lang {

Session::Session(const Registry& registry_in) : registry(registry_in) {
  cwd = platform::current_directory().value_or(std::filesystem::path("."));
}

void SessionLock::lock() {
  mutex_.lock();
  if (depth_++ == 0) owner_.store(std::this_thread::get_id());
}

bool SessionLock::try_lock() {
  if (!mutex_.try_lock()) return false;
  if (depth_++ == 0) owner_.store(std::this_thread::get_id());
  return true;
}

void SessionLock::unlock() {
  if (--depth_ == 0) owner_.store(std::thread::id{});
  mutex_.unlock();
}

int SessionLock::depth_here() const {
  return owner_.load() == std::this_thread::get_id() ? depth_ : 0;
}

void run_outside_lock(Session& session, const std::function<void()>& work) {
  const int depth = session.lock.depth_here();
  const bool top_command = session.line_depth == 1 && session.nesting_depth == 1 &&
                           session.script_depth == 0 && session.action_depth == 0;
  if (depth == 0 || !top_command || session.parked) {
    work();
    return;
  }
  // What this command set on the session goes aside, so the commands that run
  // meanwhile start from the state an idle session shows and count their own turns.
  struct Parked {
    std::string bot_id;
    bool person_present;
    int line_depth, nesting_depth;
  } parked{session.bot_id, session.person_present, session.line_depth, session.nesting_depth};
  session.parked = true;
  session.line_depth = session.nesting_depth = 0;
  if (session.swap_caller_state) session.swap_caller_state();
  for (int i = 0; i < depth; ++i) session.lock.unlock();

  std::exception_ptr failure;
  try {
    work();
  } catch (...) {
    failure = std::current_exception();
  }

  for (int i = 0; i < depth; ++i) session.lock.lock();
  if (session.swap_caller_state) session.swap_caller_state();
  session.bot_id = std::move(parked.bot_id);
  session.person_present = parked.person_present;
  session.line_depth = parked.line_depth;
  session.nesting_depth = parked.nesting_depth;
  session.parked = false;
  if (failure) std::rethrow_exception(failure);
}

}  // namespace kx::lang
