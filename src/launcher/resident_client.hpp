#pragma once
// The client side of forwarding: a short-lived kx posts units to the resident's
// "/console/exec" and prints what they printed. Once a unit is sent it is never
// sent again and never run here: the client waits for its answer however long
// the command runs, and only input that was never sent may run locally.
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "lang/parse_driver.hpp"

namespace kx::launcher {

class UnitSource;

// Where one unit ended.
struct PostOutcome {
  enum class Kind {
    kAnswered,  // the resident ran it; out, err and status hold what it printed
    kNotSent,   // nothing ran: no connection, or the resident turned the request down
    kLost,      // sent, and the answer never came whole: it may have run
    kRefused,   // 401: the resident serves another home; nothing ran
  };
  Kind kind = Kind::kNotSent;
  std::string out;
  std::string err;
  int status = 0;
};

// The request bytes for one unit. `session` names this process's console on the
// resident; the home's token when there is one (empty: none); X-Kst-Cwd when the
// directory is known; X-Kst-Tty when a person sits at the terminal.
std::string build_exec_request(std::string_view unit, lang::UnitForm form,
                               const std::string& session, const std::optional<std::string>& cwd,
                               bool tty, const std::string& token);

// Reads a whole raw reply. Nothing ran unless the status is 200 and the body
// carries "out"; a 401 is a refusal; a reply without an end of head is a lost
// answer.
PostOutcome parse_reply(std::string_view reply);

// The end of a JSON string whose inside starts at `from`: the first quote not
// escaped (the text's size when there is none).
std::size_t json_string_end(std::string_view text, std::size_t from);

// The whole size of an HTTP reply whose head (all of it) starts `reply`, from its
// Content-Length; 0 while the head is incomplete or names no usable length.
std::size_t reply_length(std::string_view reply);

// Decodes a JSON string's inside to UTF-8: every escape, \uXXXX (surrogate pairs
// joined) included; bytes that are not escapes pass through as they are.
std::string decode_json_string(std::string_view escaped);

// One exchange with the resident on `port`, carrying `token`.
PostOutcome post_unit(std::uint16_t port, std::string_view unit, lang::UnitForm form,
                      const std::string& session, const std::string& token);

// A random name for this process's console on the resident.
std::string new_console_session();

// How a run of forwarded units ended.
struct ForwardResult {
  int status = 0;               // the worst exit status of the units answered
  bool rest_runs_here = false;  // units remain in the source to run locally
  bool any_sent = false;
  bool refused = false;  // the resident refused our token: it serves another home
};

// Posts the arguments `line` (when not empty) or each unit of `source` in order,
// printing each answer. Stops at the first unit that could not be sent (put back
// into the source) and, after a lost answer, reports it and leaves the rest of
// the input to run locally.
ForwardResult forward_units(std::uint16_t port, const std::string& line, UnitSource& source,
                            const std::string& token);

}  // namespace kx::launcher
