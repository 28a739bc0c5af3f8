#include "launcher/result_paint.hpp"

#include <gtest/gtest.h>

#include <sstream>

namespace kx::launcher {
namespace {

TEST(ResultPaint, OnlyTheMarksOfResultsAndHintsAreColoured) {
  EXPECT_EQ(paint_line("OK: saved"), "\033[32mOK:\033[0m saved");
  EXPECT_EQ(paint_line("OK"), "\033[32mOK\033[0m");
  EXPECT_EQ(paint_line("ERROR: no such file: a"), "\033[31mERROR:\033[0m no such file: a");
  EXPECT_EQ(paint_line("warning: kept aside"), "\033[33mwarning:\033[0m kept aside");
  EXPECT_EQ(paint_line("  next: fs:cat a"), "\033[2m  next: fs:cat a\033[0m");
  EXPECT_EQ(paint_line("  [version control: automatic] a saved as v2"),
            "\033[2m  [version control: automatic] a saved as v2\033[0m");
  // File text and words that merely begin alike stay as written.
  for (std::string_view plain : {"OKAY then", "hello", "next: not indented", "  plain", ""})
    EXPECT_EQ(paint_line(plain), plain);
  EXPECT_EQ(paint_text("OK: a\nbody\nERROR: b\n"),
            "\033[32mOK:\033[0m a\nbody\n\033[31mERROR:\033[0m b\n");
}

TEST(ResultPaint, AStreamIsPaintedLineByLineAndAPromptGoesOutAtOnce) {
  std::stringbuf target;
  PaintingBuffer painter(&target);
  std::ostream out(&painter);
  out << "OK: one\nkx> " << std::flush;
  EXPECT_EQ(target.str(), "\033[32mOK:\033[0m one\nkx> ");
  out << "OK: typed after the prompt\nERROR: x\n" << std::flush;
  EXPECT_EQ(target.str(),
            "\033[32mOK:\033[0m one\nkx> OK: typed after the prompt\n"
            "\033[31mERROR:\033[0m x\n");
}

}  // namespace
}  // namespace kx::launcher
