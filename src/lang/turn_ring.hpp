#pragma once
// The turn ring: every command line a caller runs at top level is a turn (its
// sequence number, the line as typed and the lines of its result), and the
// session keeps the most recent ones. Turns that fall out of the ring wait in
// `unlogged` until the session's turn log has taken them.
#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kx::lang {

struct Turn {
  std::uint64_t seq = 0;
  std::string line;
  std::vector<std::string> result_lines;  // at most kMaxResultLines
  std::size_t lines_cut = 0;              // result lines beyond the limit, not kept
  // The $[] values the command published, when it published any (grep -p).
  std::optional<std::vector<std::string>> published;
};

class TurnRing {
 public:
  static constexpr std::size_t kDefaultDepth = 128;
  static constexpr std::size_t kMaxDepth = 100000;
  static constexpr std::size_t kMaxResultLines = 256;
  // Turns per turn log file: a log is rewritten whole on every save, so it stays small.
  static constexpr std::uint64_t kTurnsPerLog = 256;
  // Turns kept waiting for a log that cannot be written (no store); older ones are
  // dropped and counted.
  static constexpr std::size_t kMaxUnlogged = 4096;
  // After a failed log write, the next try waits for this many more turns.
  static constexpr std::size_t kLogRetryEvery = 64;

  void record(std::string_view line, std::string_view result,
              std::optional<std::vector<std::string>> published);

  // Sets the ring size; turns beyond it leave for the log, oldest first.
  void set_depth(std::size_t depth);
  std::size_t depth() const { return depth_; }

  const std::deque<Turn>& turns() const { return ring_; }
  const Turn* find(std::uint64_t seq) const;
  // The turn `back` places before the newest (1 = the newest), if the ring holds it.
  const Turn* from_newest(std::size_t back) const;

  // Turns that left the ring and are not in a turn log yet, oldest first.
  std::deque<Turn>& unlogged() { return unlogged_; }
  // Turns dropped because no log took them in time.
  std::uint64_t dropped() const { return dropped_; }

  // The log's state: which file it writes and the text it holds so far. The tag
  // names this session's logs; it is set when the first turn leaves the ring.
  struct Log {
    std::string tag;
    std::uint64_t file_first_seq = 0;  // first seq of the file being written
    std::string text;                  // that file's turns, rendered
    std::size_t retry_at = 0;          // try again once this many turns wait
  };
  Log& log() { return log_; }

 private:
  void trim_to_depth();

  std::deque<Turn> ring_;
  std::deque<Turn> unlogged_;
  std::size_t depth_ = kDefaultDepth;
  std::uint64_t next_seq_ = 1;
  std::uint64_t dropped_ = 0;
  Log log_;
};

// One turn as `fssys:turns` and the turn log show it: "#<seq>  <line>", then each
// result line as "    | <line>".
std::string render_turn(const Turn& turn);

// A set of sequence numbers, as `fssys:promote` takes it: items separated by
// commas, each "N", "A..B", "A.." (to the newest), "..B" (from the oldest), ".."
// (all), or "-K" (the K most recent turns that can be promoted).
class SeqRange {
 public:
  static std::optional<SeqRange> parse(std::string_view text);
  // The promotable turns the range names, in sequence order.
  std::vector<const Turn*> select(const std::vector<const Turn*>& candidates) const;

 private:
  struct Item {
    std::uint64_t from = 0, to = 0;  // both ends included
    std::size_t last = 0;            // "-K": the K newest
  };
  std::vector<Item> items_;
};

}  // namespace kx::lang
