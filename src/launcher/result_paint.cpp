#include "launcher/result_paint.hpp"

namespace kx::launcher {
namespace {

constexpr std::string_view kReset = "\033[0m";
constexpr std::string_view kGreen = "\033[32m";
constexpr std::string_view kRed = "\033[31m";
constexpr std::string_view kYellow = "\033[33m";
constexpr std::string_view kDim = "\033[2m";

std::string wrap(std::string_view colour, std::string_view text) {
  std::string out(colour);
  out += text;
  out += kReset;
  return out;
}

bool is_hint(std::string_view line) {
  if (!line.starts_with("  ")) return false;
  std::size_t start = line.find_first_not_of(' ');
  if (start == std::string_view::npos) return false;
  std::string_view rest = line.substr(start);
  for (std::string_view mark : {"try:", "best:", "next:", "[version control"})
    if (rest.starts_with(mark)) return true;
  return false;
}

}  // namespace

std::string paint_line(std::string_view line) {
  if (line.starts_with("ERROR:")) return wrap(kRed, "ERROR:") + std::string(line.substr(6));
  if (line.starts_with("warning:")) return wrap(kYellow, "warning:") + std::string(line.substr(8));
  if (line == "OK" || line.starts_with("OK:") || line.starts_with("OK ")) {
    std::size_t mark = line.starts_with("OK:") ? 3 : 2;
    return wrap(kGreen, line.substr(0, mark)) + std::string(line.substr(mark));
  }
  if (is_hint(line)) return wrap(kDim, line);
  return std::string(line);
}

std::string paint_text(std::string_view text) {
  std::string out;
  std::size_t start = 0;
  while (start < text.size()) {
    std::size_t end = text.find('\n', start);
    if (end == std::string_view::npos) end = text.size();
    out += paint_line(text.substr(start, end - start));
    if (end < text.size()) out += '\n';
    start = end + 1;
  }
  return out;
}

void PaintingBuffer::emit(bool line_ended) {
  std::string out = mid_line_ ? line_ : paint_line(line_);
  if (line_ended) out += '\n';
  target_->sputn(out.data(), static_cast<std::streamsize>(out.size()));
  mid_line_ = !line_ended && (mid_line_ || !line_.empty());
  line_.clear();
}

PaintingBuffer::int_type PaintingBuffer::overflow(int_type c) {
  if (traits_type::eq_int_type(c, traits_type::eof())) return traits_type::not_eof(c);
  if (traits_type::to_char_type(c) == '\n')
    emit(true);
  else
    line_ += traits_type::to_char_type(c);
  return c;
}

int PaintingBuffer::sync() {
  if (!line_.empty()) emit(false);
  return target_->pubsync();
}

}  // namespace kx::launcher
