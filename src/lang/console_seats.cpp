#include "lang/console_seats.hpp"

#include <sstream>
#include <utility>

namespace kx::lang {

ConsoleSeats::Seat& ConsoleSeats::seat_for(const std::string& key,
                                           const std::filesystem::path& cwd) {
  for (auto it = seats_.begin(); it != seats_.end(); ++it) {
    if (it->key != key) continue;
    seats_.splice(seats_.begin(), seats_, it);
    return seats_.front();
  }
  Seat seat;
  seat.key = key;
  seat.cwd = cwd;
  seats_.push_front(std::move(seat));
  if (seats_.size() > kMaxSeats) seats_.pop_back();
  return seats_.front();
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
  std::lock_guard guard(mutex_);
  // A caller that keeps no console gets a seat for this unit alone.
  Seat transient;
  transient.cwd = cwd.empty() ? session.cwd : cwd;
  Seat& seat = key.empty() ? transient : seat_for(key, transient.cwd);

  swap_state(session, seat);
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

  session.records_turns = records_turns;
  swap_state(session, seat);

  result.out = std::move(out).str();
  result.err = std::move(err).str();
  return result;
}

std::size_t ConsoleSeats::size() const {
  std::lock_guard guard(mutex_);
  return seats_.size();
}

}  // namespace kx::lang
