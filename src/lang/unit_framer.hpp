#pragma once
// Cuts a stream of input into complete units, the pieces the parser reads as one
// line: a command with a CDATA block that spans lines, or a statement whose braces
// span lines, is one unit. Local runs and forwarding both frame input this way,
// so a unit runs whole on either path and never half here, half there.
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace kx::lang {

class UnitFramer {
 public:
  // Adds bytes as read; units complete at a line end that closes every block.
  void add(std::string_view bytes);
  // The next complete unit (its line ends included), or nothing yet. Blank units
  // are skipped: the parser gives them no answer either.
  std::optional<std::string> next();
  // At the end of input: whatever is left, complete or not.
  std::optional<std::string> finish();

 private:
  void scan_line(std::string_view line);
  std::optional<std::string> take(std::size_t end);

  std::string pending_;
  std::size_t unit_start_ = 0;  // where the unit under way begins in pending_
  std::size_t scanned_ = 0;     // bytes of pending_ already scanned
  bool first_line_ = true;
  bool statement_ = false;  // braces count only in the script language
  bool in_cdata_ = false;
  int brace_depth_ = 0;
};

// Whether a line starts a statement of the script language rather than a command.
bool starts_statement(std::string_view line);

}  // namespace kx::lang
