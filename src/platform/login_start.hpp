#pragma once
// The entry that boots the resident when the user logs in: `"<program>" boot`.
// Linux: the XDG autostart file "<config>/autostart/kestrune.desktop", <config>
// being $XDG_CONFIG_HOME, else ~/.config. Windows: the string value "Kestrune"
// under HKEY_CURRENT_USER\Software\Microsoft\Windows\CurrentVersion\Run.
#include <filesystem>
#include <optional>
#include <string>

namespace kx::platform {

// What the entry holds for `program`.
std::string login_start_text(const std::filesystem::path& program);

// The entry as it stands now; nothing when there is none.
std::optional<std::string> login_start_entry();

// Writes the entry for `program` only when it is missing or different (the file
// atomically, through a temporary name). False when it could not be written.
bool register_login_start(const std::filesystem::path& program);

}  // namespace kx::platform
