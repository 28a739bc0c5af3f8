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

}  // namespace kx::platform
