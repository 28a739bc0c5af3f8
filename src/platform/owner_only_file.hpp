#pragma once
// Secrets on disk: files that only the current user can read, and the system's
// cryptographic random source to fill them.
#include <cstddef>
#include <filesystem>
#include <string>
#include <string_view>

namespace kx::platform {

// Writes `data` to `path` so that only the current user may read or change it:
// a temporary file is created owner-only (never readable by others, even for a
// moment), written, synced and renamed over `path`. False sets `reason`.
[[nodiscard]] bool write_owner_only_file(const std::filesystem::path& path, std::string_view data,
                                         std::string& reason);

// Narrows an existing file to its owner (Linux: mode 0600; Windows: a protected
// ACL granting the current user alone). False sets `reason`.
[[nodiscard]] bool restrict_to_owner(const std::filesystem::path& path, std::string& reason);

// Whether someone other than the owner could read the file today (Linux: group or
// other permission bits). Always false where the check has no cheap answer.
bool readable_by_others(const std::filesystem::path& path);

// Fills `out` with `size` bytes from the system's cryptographic random source.
[[nodiscard]] bool secure_random(unsigned char* out, std::size_t size);

}  // namespace kx::platform
