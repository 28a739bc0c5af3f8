#pragma once
// The data file of a context, "data.mem", and its crash net "data.mem.last".
//
// Format (all integers unsigned 32-bit little-endian; a string is a 32-bit byte
// count followed by that many bytes, no terminator, no padding):
//
//   offset 0  "KST2"                       magic
//   offset 4  record, record, ...          back to back; no count, no trailer
//
//   record:   flags            bits 0..16 memo properties; bit 31 = vector follows
//             content          string
//             topic            string
//             keyword count    then that many strings
//             vector count     only when bit 31 is set; then that many 32-bit values
//
// File byte 4 + k is heap byte k, so a record's heap offset is its file offset - 4.
// Adding a memo appends the record's bytes (the magic first when the file is empty
// or missing). Deleting rewrites the file whole: the old file is first copied to
// "data.mem.last", then the new bytes are staged under a temporary name, synced and
// renamed over "data.mem" (platform/durable_file.hpp), so an interrupted rewrite
// loses at most the latest deletion.
//
// Damage is kept, reported and walled off. A file that does not load whole (another
// magic that still holds current records, a cut or damaged record) is first copied
// to "data.mem.damaged-<UTC time>", a name never reused, overwritten or deleted here;
// then "data.mem" is rewritten to exactly the records read, so later appends stay
// reachable. Records that parse from some byte behind the damage right up to the
// end are read too. When the copy cannot be made, nothing is rewritten and writes
// are refused.
//
// Several processes share one file through the lock file "data.mem.lock": every
// append and rewrite holds it, after taking in what the others wrote; its first
// eight bytes count the rewrites (see context_file.cpp).
//
// The old format (read only, converted on load): no magic and no flags; records of
// content, topic and keywords only. It is converted by re-adding every record with
// flags 0 and saving, which leaves the old file as "data.mem.last".
#include <filesystem>
#include <string>
#include <string_view>

namespace kx::memory {

class ContextStore;

inline constexpr std::string_view kMagic = "KST2";

// "<data>.last", the crash net beside the data file.
std::filesystem::path crash_net_path(const std::filesystem::path& data_path);

// Full rewrite with the crash net. Returns "" or an error sentence; on failure the
// existing "data.mem" is left as it was.
std::string rewrite_data_file(const std::filesystem::path& path, std::string_view heap);

// Copies `from` to `to` durably (a synced temporary copy renamed over `to`). "" or an error.
std::string copy_durably(const std::filesystem::path& from, const std::filesystem::path& to);

// "data.mem.damaged-<UTC time>" beside `data_path`, with "-<n>" added while taken.
std::filesystem::path free_damaged_path(const std::filesystem::path& data_path);

// How the bytes of a whole file that does not begin with the magic are read: as the
// old format when that reads them whole or further, else as current records behind
// a damaged magic.
enum class Layout { old_format, damaged_magic };
Layout guess_layout(std::string_view bytes);

// Appends the old-format records of `bytes` to `store` with flags 0 (keywords
// extended as for any append); returns the count; `whole` tells whether every byte
// was read.
std::size_t convert_old_records(ContextStore& store, std::string_view bytes, bool& whole);

// Fills `store` (which has no data path) from the bytes of a data file of either
// layout; what a damaged file loses is what a load from disk loses.
void load_from_bytes(ContextStore& store, std::string_view bytes);

// Fills `store` from its data file (ContextStore::refresh). False when the store has
// no data path, the file is missing, or it cannot be read.
bool load_data_file(ContextStore& store);

}  // namespace kx::memory
