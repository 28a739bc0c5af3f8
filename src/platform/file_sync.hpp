#pragma once
// Durability: pushing a written file (and a directory's entries) to the disk, so
// that a temp-file-and-rename save survives a power cut.
#include <filesystem>

namespace kx::platform {

// Flushes the file's data to the device. False when it cannot be opened or synced.
bool sync_file(const std::filesystem::path& file);

// Flushes a directory's entries (after a rename into it). False on failure.
bool sync_directory(const std::filesystem::path& dir);

}  // namespace kx::platform
