#pragma once
// Chat logs on disk.
//
// Format: one file per channel, "<chatlogs>/<channel>.log", and "_dm.log" for
// direct messages. Each line is one chat record as JSON, exactly as it was sent:
//   {"seq":<n>,"ts":<ms since
//   1970>,"kind":"chat|dm|sys|interp","from":"..",["to":"..",]"text":".."}
// Lines are only ever appended; a torn last line is skipped by the readers.
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace kx::server {

// Appends one record line (creating the directory and file when needed).
bool append_chat_record(const std::filesystem::path& file, const std::string& record);

// The last `count` complete lines of the file (oldest first), broken UTF-8 replaced
// by U+FFFD; none when absent.
std::vector<std::string> read_chat_tail(const std::filesystem::path& file, std::size_t count);

// The "seq" of a record line, 0 when it has none.
std::uint64_t record_seq(const std::string& record);

// Channel names are file names: 1-64 of [A-Za-z0-9._-], not starting with '.' or '_'.
bool valid_channel_name(const std::string& name);

}  // namespace kx::server
