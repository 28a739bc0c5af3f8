#include "lang/turn_ring.hpp"

#include <algorithm>

#include "lang/text.hpp"

namespace kx::lang {

void TurnRing::record(std::string_view line, std::string_view result,
                      std::optional<std::vector<std::string>> published) {
  Turn turn;
  turn.seq = next_seq_++;
  turn.line = std::string(line);
  turn.published = std::move(published);
  if (!result.empty() && result.back() == '\n') result.remove_suffix(1);
  std::size_t start = 0;
  while (start <= result.size() && !result.empty()) {
    std::size_t end = result.find('\n', start);
    if (end == std::string_view::npos) end = result.size();
    if (turn.result_lines.size() < kMaxResultLines)
      turn.result_lines.emplace_back(result.substr(start, end - start));
    else
      ++turn.lines_cut;
    start = end + 1;
  }
  ring_.push_back(std::move(turn));
  trim_to_depth();
}

void TurnRing::set_depth(std::size_t depth) {
  depth_ = std::clamp<std::size_t>(depth, 1, kMaxDepth);
  trim_to_depth();
}

void TurnRing::trim_to_depth() {
  while (ring_.size() > depth_) {
    unlogged_.push_back(std::move(ring_.front()));
    ring_.pop_front();
  }
  while (unlogged_.size() > kMaxUnlogged) {
    unlogged_.pop_front();
    ++dropped_;
  }
}

const Turn* TurnRing::find(std::uint64_t seq) const {
  if (ring_.empty() || seq < ring_.front().seq || seq > ring_.back().seq) return nullptr;
  return &ring_[seq - ring_.front().seq];  // seqs in the ring are consecutive
}

const Turn* TurnRing::from_newest(std::size_t back) const {
  if (back == 0 || back > ring_.size()) return nullptr;
  return &ring_[ring_.size() - back];
}

std::string render_turn(const Turn& turn) {
  std::string text = "#" + std::to_string(turn.seq) + "  ";
  for (char c : turn.line) {
    text += c;
    if (c == '\n') text += "      ";  // a command's own later lines (a CDATA body)
  }
  text += '\n';
  for (const std::string& line : turn.result_lines) text += "    | " + line + "\n";
  if (turn.lines_cut > 0)
    text += "    | … " + std::to_string(turn.lines_cut) + " more line(s) not kept in the ring\n";
  return text;
}

namespace {

std::optional<std::uint64_t> parse_seq(std::string_view text) {
  return parse_unsigned(trim(text));
}

}  // namespace

std::optional<SeqRange> SeqRange::parse(std::string_view text) {
  SeqRange range;
  text = trim(text);
  if (text.empty()) return std::nullopt;
  while (!text.empty()) {
    std::size_t comma = text.find(',');
    std::string_view part = trim(text.substr(0, comma));
    text = comma == std::string_view::npos ? std::string_view() : text.substr(comma + 1);
    Item item;
    if (part.starts_with("-")) {
      auto count = parse_seq(part.substr(1));
      if (!count || *count == 0) return std::nullopt;
      item.last = static_cast<std::size_t>(*count);
    } else if (std::size_t dots = part.find(".."); dots != std::string_view::npos) {
      std::string_view from = part.substr(0, dots), to = part.substr(dots + 2);
      auto a = trim(from).empty() ? std::optional<std::uint64_t>(0) : parse_seq(from);
      auto b = trim(to).empty() ? std::optional<std::uint64_t>(UINT64_MAX) : parse_seq(to);
      if (!a || !b || *a > *b) return std::nullopt;
      item.from = *a;
      item.to = *b;
    } else {
      auto seq = parse_seq(part);
      if (!seq) return std::nullopt;
      item.from = item.to = *seq;
    }
    range.items_.push_back(item);
  }
  return range;
}

std::vector<const Turn*> SeqRange::select(const std::vector<const Turn*>& candidates) const {
  std::vector<const Turn*> chosen;
  for (std::size_t i = 0; i < candidates.size(); ++i) {
    const Turn* turn = candidates[i];
    bool wanted = std::any_of(items_.begin(), items_.end(), [&](const Item& item) {
      if (item.last > 0) return candidates.size() - i <= item.last;
      return turn->seq >= item.from && turn->seq <= item.to;
    });
    if (wanted) chosen.push_back(turn);
  }
  return chosen;
}

}  // namespace kx::lang
