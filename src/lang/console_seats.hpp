#pragma once
// The resident's consoles: each client session (one kx process, one bot) keeps
// its own working directory, guided mode, raw depth, script variables, $[]
// registers and turn ring, as the same lines would keep them in a process of
// their own. The resident's one Session serves them all, one unit at a time.
#include <cstddef>
#include <filesystem>
#include <list>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "lang/parse_driver.hpp"
#include "lang/session.hpp"

namespace kx::lang {

struct UnitResult {
  std::string out;  // results, as the local run prints them on standard output
  std::string err;  // parse errors, as printed on standard error
  int status = 0;   // the exit status a local run would give
};

class ConsoleSeats {
 public:
  // Seats beyond this many are forgotten, oldest use first.
  static constexpr std::size_t kMaxSeats = 64;

  // Runs one unit for the seat `key`; a new seat starts in `cwd`. An empty key
  // is a seat for this unit alone.
  UnitResult run(Session& session, const std::string& key, const std::filesystem::path& cwd,
                 std::string_view unit, UnitForm form);

  std::size_t size() const;

 private:
  struct Seat {
    std::string key;
    std::filesystem::path cwd;
    std::optional<std::filesystem::path> previous_dir;
    std::vector<std::filesystem::path> dir_stack;
    bool guided = false;
    unsigned raw_depth = 0;
    ScriptVariables variables;
    RegisterSet registers;
    TurnRing turns;
  };
  static void swap_state(Session& session, Seat& seat);
  // The seat of `key`, taken out of the list (a new one starting in `cwd` if none).
  Seat take_seat(const std::string& key, const std::filesystem::path& cwd);
  void put_seat(Seat seat);

  mutable std::mutex mutex_;
  std::list<Seat> seats_;  // most recent use first
};

}  // namespace kx::lang
