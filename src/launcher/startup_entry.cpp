#include "launcher/startup_entry.hpp"

#include <fstream>
#include <sstream>
#include <string>

#include "platform/env.hpp"
#include "platform/home.hpp"
#include "platform/process_info.hpp"

namespace kx::launcher {

std::filesystem::path startup_entry_path() {
  std::filesystem::path config = platform::get_env_nonempty("XDG_CONFIG_HOME")
                                     .value_or((platform::user_profile_dir() / ".config").string());
  return config / "autostart" / "kestrune.desktop";
}

std::string startup_entry_text(const std::filesystem::path& program) {
  // Desktop-entry quoting: the path in double quotes, with ", `, $ and \ escaped.
  std::string quoted = "\"";
  for (char c : program.string()) {
    if (c == '"' || c == '`' || c == '$' || c == '\\') quoted += '\\';
    quoted += c;
  }
  quoted += '"';
  return "[Desktop Entry]\nType=Application\nName=Kestrune\n"
         "Comment=Kestrune resident: persistent memory and automatic version control\nExec=" +
         quoted + " boot\nTerminal=false\nX-GNOME-Autostart-enabled=true\n";
}

bool register_startup() {
  std::filesystem::path program = platform::executable_path();
  if (program.empty()) return false;
  std::string text = startup_entry_text(program);
  std::filesystem::path file = startup_entry_path();
  {
    std::ifstream existing(file, std::ios::binary);
    std::ostringstream current;
    current << existing.rdbuf();
    if (existing && current.str() == text) return true;
  }
  std::error_code ec;
  std::filesystem::create_directories(file.parent_path(), ec);
  std::filesystem::path temp = file;
  temp += ".tmp";
  {
    std::ofstream out(temp, std::ios::binary | std::ios::trunc);
    out << text;
    if (!out.flush()) return false;
  }
  std::filesystem::rename(temp, file, ec);
  return !ec;
}

}  // namespace kx::launcher
