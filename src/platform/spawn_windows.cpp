#include <windows.h>
// shellapi.h needs windows.h first.
#include <shellapi.h>

#include <string>

#include "platform/spawn.hpp"

namespace kx::platform {
namespace {

// Quotes one argument the way the C runtime splits a command line.
std::string quote_argument(const std::string& arg) {
  if (!arg.empty() && arg.find_first_of(" \t\"") == std::string::npos) return arg;
  std::string out = "\"";
  std::size_t backslashes = 0;
  for (char c : arg) {
    if (c == '\\') {
      ++backslashes;
      continue;
    }
    if (c == '"')
      out.append(backslashes * 2 + 1, '\\');
    else
      out.append(backslashes, '\\');
    backslashes = 0;
    out += c;
  }
  out.append(backslashes * 2, '\\');
  out += '"';
  return out;
}

}  // namespace

bool spawn_detached(const std::filesystem::path& program, const std::vector<std::string>& args,
                    const std::filesystem::path& workdir) {
  std::string command = quote_argument(program.string());
  for (const auto& arg : args) command += " " + quote_argument(arg);
  std::string dir = workdir.string();
  STARTUPINFOA startup{};
  startup.cb = sizeof startup;
  PROCESS_INFORMATION process{};
  BOOL started = ::CreateProcessA(nullptr, command.data(), nullptr, nullptr, FALSE,
                                  CREATE_NO_WINDOW | CREATE_NEW_PROCESS_GROUP, nullptr,
                                  dir.empty() ? nullptr : dir.c_str(), &startup, &process);
  if (!started) return false;
  ::CloseHandle(process.hThread);
  ::CloseHandle(process.hProcess);
  return true;
}

bool open_url(const std::string& url) {
  auto result = reinterpret_cast<INT_PTR>(
      ::ShellExecuteA(nullptr, "open", url.c_str(), nullptr, nullptr, SW_SHOWNORMAL));
  return result > 32;
}

}  // namespace kx::platform
