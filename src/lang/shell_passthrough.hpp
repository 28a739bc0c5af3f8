#pragma once
// Shell lines and directory commands run on behalf of a session.
#include <string>
#include <string_view>

#include "lang/session.hpp"

namespace kx::lang {

// Runs a shell command line in the session's directory and returns its output text
// with the kill and exit lines appended ("(no output)" when it printed nothing).
std::string run_shell_text(Session& session, std::string_view command);

// Whether `words` begin a directory command: cd, chdir, pwd, pushd, popd, "cd.."
// style forms and a bare drive ("X:").
bool is_directory_command(std::string_view request);

// Runs cd / chdir / pwd / pushd / popd / drive against the session directory.
std::string run_directory_command(Session& session, std::string_view request);

}  // namespace kx::lang
