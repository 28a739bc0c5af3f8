#include "search/file_search.hpp"

#include <algorithm>
#include <cstring>

namespace kx::search {

bool looks_binary(std::string_view text) {
  return std::memchr(text.data(), 0, std::min(text.size(), kBinaryProbeBytes)) != nullptr;
}

namespace {

// The per-file printer: selected lines, context around them and "--" between groups.
// Lines arrive in text order, so line numbers are counted forward only, once.
class Printer {
 public:
  Printer(std::string_view text, const std::string& name, const FilePlan& plan,
          MatchScratch& scratch, FileResult& result)
      : text_(text),
        name_(name),
        plan_(plan),
        options_(plan.options),
        scratch_(scratch),
        result_(result) {
    bool only = options_.only_matching;
    after_ = only ? 0 : options_.after;
    before_ = only ? 0 : options_.before;
  }

  std::size_t line_number(std::size_t offset) {
    const char* p = text_.data() + counted_to_;
    const char* end = text_.data() + offset;
    std::size_t lines = 0;
    for (; p < end; ++p) lines += *p == '\n';
    counted_line_ += lines;
    counted_to_ = offset;
    return counted_line_;
  }

  bool producing() const {
    return !(plan_.output_full && plan_.output_full->load(std::memory_order_relaxed));
  }

  void selected(Span line) {
    flush_after(line.begin);
    std::size_t start = line.begin;
    for (std::size_t k = 0; k < before_ && start > printed_end_; ++k)
      start = line_start_before(start - 1);
    if (start < printed_end_) start = printed_end_;
    separate_if_gap(start);
    for (std::size_t at = start; at < line.begin;) {
      Span context = line_from(at);
      print_line(context, '-');
      at = context.end + 1;
    }
    if (options_.only_matching) {
      print_matches(line);
    } else {
      print_line(line, ':');
    }
    printed_end_ = std::min(line.end + 1, text_.size());
    after_left_ = after_;
  }

  void finish() { flush_after(text_.size()); }

 private:
  Span line_from(std::size_t at) const {
    const void* nl = std::memchr(text_.data() + at, '\n', text_.size() - at);
    return {at, nl ? static_cast<std::size_t>(static_cast<const char*>(nl) - text_.data())
                   : text_.size()};
  }
  std::size_t line_start_before(std::size_t newline_at) const {
    std::size_t begin = newline_at;
    while (begin > 0 && text_[begin - 1] != '\n') --begin;
    return begin;
  }

  void flush_after(std::size_t limit) {
    while (after_left_ > 0 && printed_end_ < limit && printed_end_ < text_.size()) {
      Span context = line_from(printed_end_);
      print_line(context, '-');
      printed_end_ = std::min(context.end + 1, text_.size());
      --after_left_;
    }
  }

  void separate_if_gap(std::size_t start) {
    if (options_.context && !options_.only_matching && printed_any_ && start > printed_end_)
      result_.output += "--\n";
    printed_any_ = true;
  }

  void prefix(std::size_t begin, char sep) {
    if (plan_.show_names) {
      result_.output += name_;
      result_.output += sep;
    }
    if (options_.line_numbers) {
      result_.output += std::to_string(line_number(begin));
      result_.output += sep;
    }
  }

  void print_line(Span line, char sep) {
    prefix(line.begin, sep);
    result_.output.append(text_.data() + line.begin, line.end - line.begin);
    result_.output += '\n';
  }

  void print_matches(Span line) {
    std::string_view body = text_.substr(line.begin, line.end - line.begin);
    std::size_t offset = 0;
    while (offset <= body.size()) {
      auto match = plan_.matcher.match_in_line(body, offset, scratch_);
      if (!match) break;
      if (match->end > match->begin) {
        prefix(line.begin, ':');
        result_.output.append(body.data() + match->begin, match->end - match->begin);
        result_.output += '\n';
        offset = match->end;
      } else {
        // Step over one whole character after an empty match.
        std::size_t step = 1;
        while (match->begin + step < body.size() &&
               (static_cast<unsigned char>(body[match->begin + step]) & 0xC0) == 0x80)
          ++step;
        offset = match->begin + step;
      }
    }
  }

  std::string_view text_;
  const std::string& name_;
  const FilePlan& plan_;
  const GrepOptions& options_;
  MatchScratch& scratch_;
  FileResult& result_;
  std::size_t after_ = 0, before_ = 0, after_left_ = 0;
  std::size_t printed_end_ = 0;
  bool printed_any_ = false;
  std::size_t counted_to_ = 0, counted_line_ = 1;
};

}  // namespace

void search_file(std::string_view text, const std::string& name, const FilePlan& plan,
                 MatchScratch& scratch, FileResult& result) {
  const GrepOptions& options = plan.options;
  const bool listing = options.files_with || options.files_without || options.quiet;
  const bool printing = !listing && !options.count;
  const bool binary = printing && looks_binary(text);
  const std::size_t limit = options.max_count.value_or(static_cast<std::size_t>(-1));
  if (limit == 0) return;
  Printer printer(text, name, plan, scratch, result);
  bool producing = printing && printer.producing();
  if (options.only_matching && options.invert) producing = false;  // nothing to show

  // Returns false when the file needs no further lines.
  auto take = [&](Span line) {
    ++result.selected;
    if (options.publish) result.hit_lines.push_back(printer.line_number(line.begin));
    if (options.quiet && plan.stop_all) plan.stop_all->store(true);
    if (listing) return false;
    if (binary) {
      if (producing) result.output += "Binary file " + name + " matches\n";
      return false;
    }
    if (producing) printer.selected(line);
    return result.selected < limit;
  };
  auto stopped = [&] { return plan.stop_all && plan.stop_all->load(std::memory_order_relaxed); };

  std::size_t pos = 0;
  bool more = true;
  while (more && pos < text.size() && !stopped()) {
    auto match = plan.matcher.next_matching_line(text, pos, scratch);
    if (!options.invert) {
      if (!match) break;
      more = take(*match);
      pos = match->end + 1;
      continue;
    }
    std::size_t gap_end = match ? match->begin : text.size();
    while (more && pos < gap_end) {
      const void* nl = std::memchr(text.data() + pos, '\n', gap_end - pos);
      std::size_t end =
          nl ? static_cast<std::size_t>(static_cast<const char*>(nl) - text.data()) : gap_end;
      more = take(Span{pos, end});
      pos = end + 1;
    }
    if (!match) break;
    pos = match->end + 1;
  }
  if (producing && !binary) printer.finish();
}

}  // namespace kx::search
