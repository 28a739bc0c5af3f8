#pragma once
// Colour for results shown on a console: the "OK" of a success in green, the
// "ERROR:" of a failure in red, "warning:" in yellow, and hint lines ("try:",
// "best:", "next:", the version-control notice) dimmed. Only the marks are
// coloured; the text itself is left as the command wrote it.
#include <ostream>
#include <streambuf>
#include <string>
#include <string_view>

namespace kx::launcher {

// One line (no line end) with its marks coloured.
std::string paint_line(std::string_view line);

// Every line of `text` painted, line ends kept.
std::string paint_text(std::string_view text);

// Paints what passes through it line by line into `target`. A line flushed before
// its end (a prompt) goes out at once; the rest of that line follows unpainted.
class PaintingBuffer : public std::streambuf {
 public:
  explicit PaintingBuffer(std::streambuf* target) : target_(target) {}

 protected:
  int_type overflow(int_type c) override;
  int sync() override;

 private:
  void emit(bool line_ended);

  std::streambuf* target_;
  std::string line_;
  bool mid_line_ = false;  // part of the current line already went out
};

}  // namespace kx::launcher
