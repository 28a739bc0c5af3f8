#pragma once
// A copy of a file that costs no data blocks where the file system can share them.
#include <filesystem>
#include <string>

namespace kx::platform {

// Makes `to` (replaced when present) a copy of `from`: a copy-on-write clone where the
// file system has them, else a plain copy. Not synced: callers that need the copy to
// survive a crash sync it themselves. False with `reason` on failure.
bool clone_file(const std::filesystem::path& from, const std::filesystem::path& to,
                std::string& reason);

}  // namespace kx::platform
