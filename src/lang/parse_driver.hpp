#pragma once
// The command-grammar front end: runs command lines and script statements read
// from a string or from standard input, writing each result to `out`.
#include <functional>
#include <ostream>
#include <string>
#include <string_view>

#include "lang/script.hpp"
#include "lang/session.hpp"

namespace kx::lang {

// Reads up to `max` bytes of input into `buffer`; 0 at end of input.
using InputReader = std::function<std::size_t(char* buffer, std::size_t max)>;

inline constexpr std::size_t kInputBufferSize = 16384;

// Parse outcome, which is also the exit status of a command-line call.
enum ParseStatus { kAccepted = 0, kSyntaxError = 1, kMemoryExhausted = 2 };

// State shared by the generated scanner and parser for one parse.
struct ParseContext {
  ParseContext(Session& session, std::ostream& out, std::ostream& err, InputReader reader,
               bool interactive);

  Session& session;
  std::ostream& out;
  std::ostream& err;
  InputReader reader;
  bool interactive;  // print the prompt before each line read
  ScriptRunner runner;

  // Scanner state.
  std::string text;  // the command line being collected
  int brace_depth = 0;
  bool args_in_statement = false;  // ';' and '}' end a command's arguments
  bool line_has_error = false;     // a newline ends the line whatever the braces
  bool sent_final_eol = false;
  bool input_ended = false;

  bool had_syntax_error = false;

  // Whether a first word that is not a command starts a plain-language line.
  bool starts_plain_line(std::string_view word) const;

  std::size_t read_input(char* buffer, std::size_t max);
  void report_error(const std::string& message);
  void write_result(const std::string& result);
  void run_command(const std::string& line);
  void run_statement(const Stmt& stmt);
  void run_query(const std::string& query);
};

// Parses and runs `text`: a command line given as arguments, newline appended.
int parse_string(Session& session, std::string_view text, std::ostream& out, std::ostream& err);

// Parses and runs input until its end; with `interactive` the prompt precedes each line.
int parse_input(Session& session, InputReader reader, bool interactive, std::ostream& out,
                std::ostream& err);

}  // namespace kx::lang
