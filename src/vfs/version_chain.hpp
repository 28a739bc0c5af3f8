#pragma once
// Reading a file's version chain: which versions exist, the text of any of them
// (from RAM when held, else from its archive file), and when and by whom each came
// to be (from the store's edit log).
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "vfs/edit_log.hpp"
#include "vfs/emit_plan.hpp"
#include "vfs/node.hpp"

namespace kst {

// Every version number of the file, ascending: archived, in RAM, and the current.
std::vector<std::uint32_t> version_numbers(const File& file);

// The text of version `number`, or nothing when the chain has no such version or
// its archive file cannot be read.
std::optional<std::string> read_version(const File& file, std::uint32_t number);

// The edit-log record that made each version of `path` (by version number; the
// latest record wins when several name the same number).
std::vector<const EditRecord*> records_by_version(const std::vector<EditRecord>& edits,
                                                  const std::string& path,
                                                  std::uint32_t max_version);

// The file's states over time, oldest first, for choosing a version as of a time.
// Versions older than the first record of the log existed "since always".
std::vector<VersionStamp> version_stamps(const std::vector<EditRecord>& edits,
                                         const std::string& path, const File& file);

// "%04d-%02d-%02d %02d:%02d:%02d" in local time.
std::string format_time(std::int64_t seconds);
// Parses "YYYY-MM-DD HH:MM:SS", "YYYY-MM-DD HH:MM", "YYYY-MM-DD" (local time) or
// seconds since the epoch.
std::optional<std::int64_t> parse_time(const std::string& text);

}  // namespace kst
