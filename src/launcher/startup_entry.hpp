#pragma once
// The start-up entry that boots the resident when the user logs in: an XDG
// autostart file, "<config>/autostart/kestrune.desktop", whose Exec line is
// "<program path>" boot. <config> is $XDG_CONFIG_HOME, else ~/.config.
#include <filesystem>
#include <string>

namespace kx::launcher {

std::filesystem::path startup_entry_path();

// The entry's text for the program at `program`.
std::string startup_entry_text(const std::filesystem::path& program);

// Writes the entry for this executable when it is missing or different (atomically,
// through a temporary file). False when it could not be written.
bool register_startup();

}  // namespace kx::launcher
