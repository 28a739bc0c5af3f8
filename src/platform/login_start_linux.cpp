#include <fstream>
#include <sstream>
#include <system_error>

#include "platform/env.hpp"
#include "platform/home.hpp"
#include "platform/login_start.hpp"

namespace kx::platform {
namespace {

std::filesystem::path entry_file() {
  std::filesystem::path config =
      get_env_nonempty("XDG_CONFIG_HOME").value_or((user_profile_dir() / ".config").string());
  return config / "autostart" / "kestrune.desktop";
}

}  // namespace

std::string login_start_text(const std::filesystem::path& program) {
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

std::optional<std::string> login_start_entry() {
  std::ifstream in(entry_file(), std::ios::binary);
  if (!in) return std::nullopt;
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

bool register_login_start(const std::filesystem::path& program) {
  if (program.empty()) return false;
  std::string text = login_start_text(program);
  if (login_start_entry() == text) return true;
  std::filesystem::path file = entry_file();
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

}  // namespace kx::platform
