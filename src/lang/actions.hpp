#pragma once
// Turns and actions: the top-level lines a session keeps in its turn ring, and
// the named actions promoted from them, stored as versioned "action_<name>.md"
// files through the file commands and run again line by line.
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "lang/registry.hpp"
#include "lang/session.hpp"

namespace kx::lang {

// Counts one level in for as long as it lives.
struct DepthGuard {
  explicit DepthGuard(int& depth) : depth_(depth) { ++depth_; }
  ~DepthGuard() { --depth_; }
  DepthGuard(const DepthGuard&) = delete;
  DepthGuard& operator=(const DepthGuard&) = delete;

 private:
  int& depth_;
};

// Keeps a top-level line and its result as a turn; turns that leave the ring are
// written to the session's turn log. `published_before`: the registers'
// generation before the line ran.
void record_turn(Session& session, std::string_view line, const std::string& result,
                 std::uint64_t published_before);

// The stored form of an action and back. Inside the stored CDATA body "]]>" is
// written "]] >" (and a "]]" that already had spaces before ">" gets one more), so
// every line comes back exactly as it went in.
std::string action_file_text(std::string_view name, const std::vector<std::string>& lines);
std::string escape_cdata_close(std::string_view text);
std::string unescape_cdata_close(std::string_view text);

// The fssys: verbs turns, turndepth, promote and actionrun.
void add_turn_verbs(Family& fssys);

}  // namespace kx::lang
