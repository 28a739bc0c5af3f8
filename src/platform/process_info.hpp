#pragma once
// Facts about this process and the machine it runs on.
#include <cstdint>
#include <filesystem>
#include <optional>

namespace kx::platform {

// The absolute path of the running executable; empty when it cannot be read.
std::filesystem::path executable_path();

// Physical memory the system could hand out now without swapping, in bytes.
std::optional<std::uint64_t> free_physical_memory();

// The current working directory, or nothing when it cannot be read.
std::optional<std::filesystem::path> current_directory();

// Blocks of a few megabytes (a file's text, a large answer and its copies) are
// taken from and given back to the heap instead of being mapped and unmapped each
// time, so a block freed is reused rather than paid for again in fresh zeroed
// pages: by every answer of a resident, and within one command's run. Retains at
// most a few megabytes per thread heap once they are freed.
void keep_freed_memory_for_reuse();

}  // namespace kx::platform
