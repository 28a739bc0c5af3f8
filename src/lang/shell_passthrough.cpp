#include "lang/shell_passthrough.hpp"

#include <cctype>
#include <chrono>
#include <system_error>

#include "lang/text.hpp"
#include "platform/shell.hpp"

namespace kx::lang {
namespace {

constexpr auto kShellTimeout = std::chrono::seconds(120);
constexpr std::size_t kOutputCap = 8 << 20;

std::string change_to(Session& session, const std::filesystem::path& target,
                      std::string_view shown) {
  std::error_code ec;
  std::filesystem::path resolved = target.is_absolute() ? target : (session.cwd / target);
  resolved = std::filesystem::weakly_canonical(resolved, ec);
  if (ec || !std::filesystem::is_directory(resolved, ec))
    return "ERROR: no such directory: " + std::string(shown);
  session.previous_dir = session.cwd;
  session.cwd = resolved;
  return "OK: " + resolved.string();
}

}  // namespace

std::string run_shell_text(Session& session, std::string_view command) {
  command = trim(command);
  if (command.empty()) return "(no command)";
  platform::ShellOutcome run = platform::run_shell(command, session.cwd, kShellTimeout, kOutputCap);
  if (!run.failure.empty()) return "ERROR: shell launch failed (err " + run.failure + ")";
  std::string text = valid_utf8(run.output);
  if (run.truncated) text += "\n[output cut at 8 MiB]";
  if (run.timed_out) {
    if (!text.empty() && text.back() != '\n') text += '\n';
    text += "[killed: no exit after 120s — command tree terminated]";
  } else if (run.exit_code != 0) {
    if (!text.empty() && text.back() != '\n') text += '\n';
    text += "[exit " + std::to_string(run.exit_code) + "]";
  }
  if (text.empty()) text = "(no output)";
  return text;
}

bool is_directory_command(std::string_view request) {
  std::string_view word = first_word(trim(request));
  if (word == "cd" || word == "chdir" || word == "pwd" || word == "pushd" || word == "popd")
    return true;
  if (word.size() > 2 && word.starts_with("cd") &&
      (word[2] == '.' || word[2] == '\\' || word[2] == '/'))
    return true;
  return word.size() == 2 && word[1] == ':' && std::isalpha(static_cast<unsigned char>(word[0]));
}

std::string run_directory_command(Session& session, std::string_view request) {
  request = trim(request);
  auto [word, arg] = split_first_word(request);
  if (word.size() > 2 && word.starts_with("cd") && word != "chdir") {
    arg = word.substr(2);  // "cd.." and "cd/tmp"
    word = "cd";
  }
  if (word == "pwd") return "OK: " + session.cwd.string();
  if (word == "cd" || word == "chdir") {
    if (arg.empty()) return "OK: " + session.cwd.string();
    if (arg == "-") {
      if (!session.previous_dir) return "ERROR: no previous directory";
      return change_to(session, *session.previous_dir, session.previous_dir->string());
    }
    return change_to(session, std::filesystem::path(std::string(arg)), arg);
  }
  if (word == "pushd") {
    if (arg.empty()) return "ERROR: usage  pushd <directory>";
    std::filesystem::path before = session.cwd;
    std::string result = change_to(session, std::filesystem::path(std::string(arg)), arg);
    if (!result.starts_with("ERROR")) session.dir_stack.push_back(before);
    return result;
  }
  if (word == "popd") {
    if (session.dir_stack.empty()) return "ERROR: pushd stack is empty";
    std::filesystem::path top = session.dir_stack.back();
    std::error_code ec;
    if (!std::filesystem::is_directory(top, ec))
      return "ERROR: popped directory no longer exists: " + top.string();
    session.dir_stack.pop_back();
    return change_to(session, top, top.string());
  }
  // A bare drive ("D:"): the root of that drive where drives exist.
  return change_to(session, std::filesystem::path(std::string(word) + "/"), word);
}

}  // namespace kx::lang
