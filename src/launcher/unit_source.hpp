#pragma once
// Standard input as a sequence of complete units, read as they are needed. The
// forwarder and the local runner draw from the same source, so input that could
// not be sent is run here from exactly where forwarding stopped.
#include <optional>
#include <string>
#include <vector>

#include "lang/parse_driver.hpp"
#include "lang/unit_framer.hpp"

namespace kx::launcher {

class UnitSource {
 public:
  explicit UnitSource(lang::InputReader reader) : reader_(std::move(reader)) {}

  // The next unit, or nothing at the end of input.
  std::optional<std::string> next();
  // Returns a unit taken but not run; the next call to next() gives it again.
  void put_back(std::string unit) { put_back_ = std::move(unit); }

 private:
  lang::InputReader reader_;
  lang::UnitFramer framer_;
  std::optional<std::string> put_back_;
  std::vector<char> chunk_;
  bool ended_ = false;
};

}  // namespace kx::launcher
