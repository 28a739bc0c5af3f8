#pragma once
// Starting processes that outlive their parent.
#include <filesystem>
#include <string>
#include <vector>

namespace kx::platform {

// Starts `program` with `args` as a detached process: its own session, standard
// streams on the null device, no inherited descriptors, working directory
// `workdir`. Does not wait for it; true when the program was started.
bool spawn_detached(const std::filesystem::path& program, const std::vector<std::string>& args,
                    const std::filesystem::path& workdir);

// Opens a URL in the user's browser; false when there is no opener to run.
bool open_url(const std::string& url);

}  // namespace kx::platform
