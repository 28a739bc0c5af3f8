#pragma once
// The command-grammar front end: runs command lines and script statements read
// from a string or from standard input, writing each result to `out`.
#include <functional>
#include <map>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>

#include "lang/script.hpp"
#include "lang/session.hpp"

namespace kx::lang {

// Reads up to `max` bytes of input into `buffer`; 0 at end of input.
using InputReader = std::function<std::size_t(char* buffer, std::size_t max)>;

// Parse outcome, which is also the exit status of a command-line call.
enum ParseStatus { kAccepted = 0, kSyntaxError = 1, kMemoryExhausted = 2 };

// Braces, parentheses and negations nest at most this deep in one line; deeper
// is a parse error rather than a stack the size of the input.
inline constexpr int kMaxNesting = 1000;

// The largest unit any path accepts, the same as the resident's request limit.
inline constexpr std::size_t kMaxUnitBytes = 1048576;

// How a unit's line ends read: the arguments of one call are one command line
// (a newline inside them is text); input read as lines ends a command at each.
enum class UnitForm { kArguments, kLines };

// Script variables a console keeps from one unit to the next.
using ScriptVariables = std::map<std::string, ScriptRunner::Value>;

// State shared by the generated scanner and parser for one parse.
struct ParseContext {
  ParseContext(Session& session, std::ostream& out, std::ostream& err, InputReader reader,
               bool interactive, UnitForm form = UnitForm::kLines);

  Session& session;
  std::ostream& out;
  std::ostream& err;
  InputReader reader;
  bool interactive;  // print the prompt before each line read
  bool single_line;  // a newline is text (arguments) rather than the end of a line
  ScriptRunner runner;

  // Scanner state.
  std::string text;  // the command line being collected
  int brace_depth = 0;
  bool args_in_statement = false;  // ';' and '}' end a command's arguments
  bool line_has_error = false;     // a newline ends the line whatever the braces
  bool sent_final_eol = false;
  bool input_ended = false;
  int nesting = 0;                // open braces and parentheses in the statement
  bool nesting_exceeded = false;  // the next parse error is the nesting limit

  bool had_syntax_error = false;

  // Whether a first word that is not a command starts a plain-language line.
  bool starts_plain_line(std::string_view word) const;

  std::size_t read_input(char* buffer, std::size_t max);
  void report_error(const std::string& message);
  void write_result(const std::string& result);
  void run_command(const std::string& line);
  void run_statement(const Stmt& stmt);
  void run_query(const std::string& query);

  // Counts one more level; false (and the line is abandoned) past kMaxNesting.
  bool enter_nesting();
};

// Parses and runs `text`: a command line given as arguments, newline appended.
int parse_string(Session& session, std::string_view text, std::ostream& out, std::ostream& err);

// Parses and runs input until its end; with `interactive` the prompt precedes each line.
int parse_input(Session& session, InputReader reader, bool interactive, std::ostream& out,
                std::ostream& err);

// Parses and runs one unit as a console does, locally or in the resident: units
// holding a NUL byte or larger than kMaxUnitBytes are refused the same way
// everywhere, and script variables carry over through `variables`.
int run_unit(Session& session, std::string_view unit, UnitForm form, ScriptVariables& variables,
             std::ostream& out, std::ostream& err);

// Why a unit is refused before it is parsed, or nothing when it is not.
std::optional<std::string> unit_refusal(std::string_view unit);

}  // namespace kx::lang
