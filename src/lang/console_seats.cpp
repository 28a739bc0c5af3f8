#include "lang/console_seats.hpp"

#include <sstream>
#include <utility>

namespace kx::lang {

ConsoleSeats::Seat ConsoleSeats::take_seat(const std::string& key,
                                           const std::filesystem::path& cwd) {
  if (!key.empty())
    for (auto it = seats_.begin(); it != seats_.end(); ++it) {
      if (it->key != key) continue;
      Seat seat = std::move(*it);
      seats_.erase(it);
      return seat;
    }
  Seat seat;
  seat.key = key;
  seat.cwd = cwd;
  return seat;
}

void ConsoleSeats::put_seat(Seat seat) {
  // A unit of the same console that ran meanwhile made a seat of its own; the one
  // coming back is the later.
  std::erase_if(seats_, [&](const Seat& s) { return s.key == seat.key; });
  seats_.push_front(std::move(seat));
  if (seats_.size() > kMaxSeats) seats_.pop_back();
}

// The seat's state stands in for the session's while one of its units runs.
void ConsoleSeats::swap_state(Session& session, Seat& seat) {
  std::swap(session.cwd, seat.cwd);
  std::swap(session.previous_dir, seat.previous_dir);
  std::swap(session.dir_stack, seat.dir_stack);
  std::swap(session.guided, seat.guided);
  std::swap(session.raw_depth, seat.raw_depth);
  std::swap(session.registers, seat.registers);
  std::swap(session.turns, seat.turns);
}

UnitResult ConsoleSeats::run(Session& session, const std::string& key,
                             const std::filesystem::path& cwd, std::string_view unit,
                             UnitForm form) {
  // Session before seats: every other path into the session takes its lock first.
  std::lock_guard session_guard(session.lock);
  // The seat leaves the list while its unit runs and goes back to the front after, so
  // the seats' own lock is not held through a command that lets the session go
  // (run_outside_lock) and lets other callers in.
  Seat seat;
  {
    std::lock_guard guard(mutex_);
    seat = take_seat(key, cwd.empty() ? session.cwd : cwd);
  }

  swap_state(session, seat);
  auto previous_swap =
      std::exchange(session.swap_caller_state, [&session, &seat] { swap_state(session, seat); });
  // Only a console makes turns.
  const bool records_turns = std::exchange(session.records_turns, !key.empty());

  std::ostringstream out, err;
  UnitResult result;
  try {
    result.status = run_unit(session, unit, form, seat.variables, out, err);
  } catch (const std::exception& e) {
    out << "ERROR: the command failed inside the resident (" << e.what() << ")\n";
    result.status = kSyntaxError;
  }

  session.swap_caller_state = std::move(previous_swap);
  session.records_turns = records_turns;
  swap_state(session, seat);

  if (!key.empty()) {
    std::lock_guard guard(mutex_);
    put_seat(std::move(seat));
  }
  result.out = std::move(out).str();
  result.err = std::move(err).str();
  return result;
}

std::size_t ConsoleSeats::size() const {
  std::lock_guard guard(mutex_);
  return seats_.size();
}

}  // namespace kx::lang
