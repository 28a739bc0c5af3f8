#pragma once
// The command result: the one text every command returns. Success begins "OK"
// (as a rule "OK: " and a message); failure begins "ERROR: " and says what to type
// instead. Hint lines ("try:", "best:") may follow the first line.
#include <string>
#include <string_view>

namespace kx {

inline bool is_error(std::string_view result) {
  return result.starts_with("ERROR: ");
}

inline std::string error_result(std::string_view message) {
  return "ERROR: " + std::string(message);
}

inline std::string ok_result(std::string_view message) {
  return "OK: " + std::string(message);
}

}  // namespace kx
