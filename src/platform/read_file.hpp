#pragma once
// Reading a whole file with as few system calls as the platform allows: loading an
// enrolled tree reads every file of it at start-up.
#include <cstdint>
#include <filesystem>
#include <string>

namespace kx::platform {

// Replaces `out` with the file's bytes. `size_hint` is the size seen a moment ago
// (0 when unknown); a file that has grown since is still read whole.
bool read_whole_file(const std::filesystem::path& path, std::string& out, std::uint64_t size_hint);

}  // namespace kx::platform
