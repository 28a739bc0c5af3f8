#pragma once
// Picks kxterm's own commands out of raw keystrokes. "::detach", "::quit",
// "::close" and "::list" typed at the start of a line (then Enter) are commands;
// Ctrl-] detaches at any time. Everything else goes to the session unchanged.
//
// A ':' at the start of a line is held back until the next key shows whether a
// command begins; when none follows within kHoldMillis it is sent alone, so a
// full-screen program (vi's ':') only ever sees it late by that much.
#include <cstdint>
#include <string>
#include <string_view>

namespace kx::launcher {

inline constexpr char kDetachKey = 0x1d;  // Ctrl-]
inline constexpr int kHoldMillis = 250;

class KeyFilter {
 public:
  enum class Command { kNone, kDetach, kClose, kList };
  struct Step {
    std::string to_session;  // bytes to type into the session
    std::string echo;        // what to show locally (a command being typed)
    Command command = Command::kNone;
  };

  // Keys read at time `now_millis`. A command stops the step: later keys of the
  // same read are dropped.
  Step feed(std::string_view keys, std::int64_t now_millis);
  // Called when no key came for a while: releases a held ':' that is due.
  Step tick(std::int64_t now_millis);

 private:
  void abandon(Step& step);  // the held text was not a command: pass it on

  bool line_start_ = true;
  std::string held_;  // ':' or a command being typed, starting "::"
  std::int64_t held_since_ = 0;
};

}  // namespace kx::launcher
