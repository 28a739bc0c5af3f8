#pragma once
// The edit log of a store: one record per versioned change (create, modify,
// tombstone, restore, move, copy, ...), newest last on disk.
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace kst {

struct EditRecord {
  std::int64_t ts = 0;  // seconds since the Unix epoch
  std::string path;     // store path
  std::string op;
  std::string seat;
  std::uint32_t new_version = 0;
  std::uint32_t prev_version = 0;
  std::string store;  // the store's disk root
};

// One record as its JSON line (no newline): {"ts":..,"path":..,"op":..,"seat":..,
// "new":N,"prev":M,"store":..}.
std::string edit_record_json(const EditRecord& record);

// Appends one record durably. Returns false with `reason` on failure.
bool append_edit(const std::filesystem::path& log_file, const EditRecord& record,
                 std::string& reason);

// Stamps `record` with the current time and appends it, creating the log's folder
// first (the first change of a store or a watched file makes it).
bool append_edit_now(const std::filesystem::path& log_file, EditRecord record, std::string& reason);

// The complete records past byte `offset`, oldest first; `offset` moves past the last
// complete line, so a line still being written is read on the next call.
std::vector<EditRecord> read_edits_after(const std::filesystem::path& log_file,
                                         std::uint64_t& offset);

// Every complete record, oldest first. A torn last line is skipped.
std::vector<EditRecord> read_edits(const std::filesystem::path& log_file);

}  // namespace kst
