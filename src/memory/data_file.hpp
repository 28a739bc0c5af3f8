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
// "data.mem.last", then the new bytes go to "data.mem.tmp", are synced and renamed
// over "data.mem", so an interrupted rewrite loses at most the latest deletion.
//
// Loading is lenient: records are read until one does not fit; the records before
// it are kept and the unparsed tail stays in the heap byte for byte, to be written
// back unchanged by the next rewrite.
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

// Reads a whole file. False when it cannot be opened or read.
bool read_whole_file(const std::filesystem::path& path, std::string& out);

// Appends one record's bytes. Returns "" or an error sentence.
std::string append_data_file(const std::filesystem::path& path, std::string_view record_bytes);

// Full rewrite with the crash net. Returns "" or an error sentence; on failure the
// existing "data.mem" is left as it was.
std::string rewrite_data_file(const std::filesystem::path& path, std::string_view heap);

// Fills `store` from the bytes of a data file (either format). An old-format file
// is converted and, when the store has a data path, saved in the current format.
void load_from_bytes(ContextStore& store, std::string_view bytes);

// Fills `store` from its data file. False when the store has no data path or the
// file cannot be read (the store then stays empty and usable).
bool load_data_file(ContextStore& store);

}  // namespace kx::memory
