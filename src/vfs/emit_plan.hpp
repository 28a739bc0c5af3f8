#pragma once
// Emits: writing the files of a scope out of the store as they were at a chosen
// time. Any seat may ask for one; it waits in a numbered queue until a human
// approves it and picks the target (mode A over the current files, mode B to a new
// tree). This header holds the queue and the choice of version per file.
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace kst {

struct PendingEmit {
  std::uint32_t number = 0;
  std::string scope;                 // store path prefix, "" for the whole store
  std::optional<std::int64_t> asof;  // seconds since the epoch; none = latest
  std::string requested_by;          // seat
  std::int64_t requested_at = 0;
};

// Pending emits live in memory from request to approval or cancellation. Numbers
// start at 1 and are never reused by the process.
class EmitQueue {
 public:
  const PendingEmit& add(std::string scope, std::optional<std::int64_t> asof,
                         std::string requested_by, std::int64_t now);
  const std::vector<PendingEmit>& pending() const { return pending_; }
  const PendingEmit* find(std::uint32_t number) const;
  // Removes and returns the emit; nothing when there is no such pending emit.
  std::optional<PendingEmit> take(std::uint32_t number);

 private:
  std::vector<PendingEmit> pending_;
  std::uint32_t next_ = 1;
};

// One moment of a file's chain: version `version` came to be at `at` (a tombstone
// marks the file deleted from then on). Chains are given oldest first.
struct VersionStamp {
  std::uint32_t version = 0;
  std::int64_t at = 0;
  bool tombstone = false;
};

struct AsOfChoice {
  enum class Kind { write, deleted, not_yet_existing };
  Kind kind = Kind::write;
  std::uint32_t version = 0;  // for write
};

// The state of a file at `asof` (none = latest): the last stamp at or before it.
AsOfChoice version_as_of(std::span<const VersionStamp> chain, std::optional<std::int64_t> asof);

// Seats that may approve emits: the console user and the panel. Every other seat
// is a bot.
bool is_human_seat(std::string_view seat);

}  // namespace kst
