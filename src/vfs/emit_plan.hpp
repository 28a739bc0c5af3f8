#pragma once
// Emits: writing the files of a scope out of the store as they were at a chosen
// time. Any seat may ask for one; it waits in a numbered queue until a human
// approves it and picks the target (mode A over the current files, mode B to a new
// tree). This header holds the queue and the choice of version per file.
#include <cstdint>
#include <filesystem>
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

// Pending emits wait from request to approval or cancellation. Numbers start at 1
// and are never reused. With a file, the queue is kept there: every process of the
// home (a kx command, the resident) sees the same numbered emits, and a request
// outlives the process that made it. Callers serialise their own commands; two
// processes changing the queue at the same instant may lose one change.
class EmitQueue {
 public:
  explicit EmitQueue(std::filesystem::path file = {});
  // False (with `error`) when the queue file could not be written: nothing changed.
  [[nodiscard]] const PendingEmit* add(std::string scope, std::optional<std::int64_t> asof,
                                       std::string requested_by, std::int64_t now,
                                       std::string& error);
  const std::vector<PendingEmit>& pending();
  const PendingEmit* find(std::uint32_t number);
  // Removes and returns the emit; nothing when there is no such pending emit (or the
  // file could not be written).
  std::optional<PendingEmit> take(std::uint32_t number);

 private:
  void load();
  bool save(std::string& error) const;

  std::filesystem::path file_;
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
