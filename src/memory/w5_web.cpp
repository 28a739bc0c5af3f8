#include "memory/w5_web.hpp"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <unordered_set>

#include "memory/tokenizer.hpp"

namespace kx::memory {
namespace {

constexpr std::size_t kMaxWhatTerms = 8;
constexpr std::size_t kMaxWhyWords = 6;
constexpr std::size_t kMaxWhereBytes = 200;

std::string lower(std::string_view s) {
  std::string out(s);
  for (char& c : out) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return out;
}

bool is_digit(char c) {
  return c >= '0' && c <= '9';
}

void add_unique(std::vector<std::string>& terms, std::string term) {
  if (term.empty()) return;
  if (std::find(terms.begin(), terms.end(), term) == terms.end()) terms.push_back(std::move(term));
}

std::size_t read_number(std::string_view s, std::size_t pos, std::size_t max_digits, int& value) {
  std::size_t n = 0;
  value = 0;
  while (pos + n < s.size() && n < max_digits && is_digit(s[pos + n])) {
    value = value * 10 + (s[pos + n] - '0');
    ++n;
  }
  return n;
}

void find_dates(std::string_view text, std::vector<std::string>& out) {
  for (std::size_t i = 0; i + 7 <= text.size(); ++i) {
    if (i > 0 && is_digit(text[i - 1])) continue;
    int year = 0, month = 0, day = 0;
    if (read_number(text, i, 4, year) != 4) continue;
    const char sep = text[i + 4];
    if (sep != '-' && sep != '/' && sep != '.') continue;
    const std::size_t month_digits = read_number(text, i + 5, 2, month);
    if (month_digits == 0 || month < 1 || month > 12) continue;
    std::size_t end = i + 5 + month_digits;
    char stamp[32];
    if (end + 1 < text.size() && text[end] == sep && is_digit(text[end + 1])) {
      const std::size_t day_digits = read_number(text, end + 1, 2, day);
      if (day < 1 || day > 31) continue;
      end += 1 + day_digits;
      std::snprintf(stamp, sizeof stamp, "%04d-%02d-%02d", year, month, day);
    } else {
      std::snprintf(stamp, sizeof stamp, "%04d-%02d", year, month);
    }
    if (end < text.size() && is_digit(text[end])) continue;
    add_unique(out, stamp);
    i = end - 1;
  }
}

void find_mentions(std::string_view text, std::vector<std::string>& out) {
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '@' || (i > 0 && std::isalnum(static_cast<unsigned char>(text[i - 1]))))
      continue;
    std::size_t end = i + 1;
    while (end < text.size() && (std::isalnum(static_cast<unsigned char>(text[end])) ||
                                 text[end] == '_' || text[end] == '-'))
      ++end;
    if (end > i + 1) add_unique(out, lower(text.substr(i + 1, end - i - 1)));
  }
}

void find_paths(std::string_view text, std::vector<std::string>& out) {
  std::size_t i = 0;
  while (i < text.size()) {
    while (i < text.size() && std::isspace(static_cast<unsigned char>(text[i]))) ++i;
    std::size_t end = i;
    while (end < text.size() && !std::isspace(static_cast<unsigned char>(text[end]))) ++end;
    std::string_view word = text.substr(i, end - i);
    while (!word.empty() &&
           std::string_view(",.;:)]}'\"!?").find(word.back()) != std::string_view::npos)
      word.remove_suffix(1);
    while (!word.empty() && std::string_view("([{'\"").find(word.front()) != std::string_view::npos)
      word.remove_prefix(1);
    if (word.size() > 1 && word.size() <= kMaxWhereBytes &&
        word.find_first_of("/\\") != std::string_view::npos)
      add_unique(out, lower(word));
    i = end;
  }
}

// True when a cue might be present, in any letter case of its first letter.
bool has_reason_cue(std::string_view text) {
  for (std::string_view tail : {"ecause ", "ince ", "o that ", "ue to "})
    if (text.find(tail) != std::string_view::npos) return true;
  return false;
}

void find_reasons(std::string_view text, std::vector<std::string>& out) {
  const std::string folded = lower(text);
  for (std::string_view cue : {"because ", "since ", "so that ", "due to "}) {
    std::size_t at = 0;
    while ((at = folded.find(cue, at)) != std::string::npos) {
      const bool word_start = at == 0 || !std::isalnum(static_cast<unsigned char>(folded[at - 1]));
      at += cue.size();
      if (!word_start) continue;
      std::string reason;
      std::size_t words = 0, pos = at;
      while (pos < folded.size() && words < kMaxWhyWords) {
        while (pos < folded.size() && folded[pos] == ' ') ++pos;
        std::size_t end = pos;
        while (end < folded.size() &&
               std::string_view(" .,;!?\n\r\t").find(folded[end]) == std::string_view::npos)
          ++end;
        if (end == pos) break;
        if (!reason.empty()) reason += ' ';
        reason.append(folded, pos, end - pos);
        ++words;
        pos = end;
        if (pos < folded.size() && folded[pos] != ' ') break;
      }
      add_unique(out, std::move(reason));
    }
  }
}

}  // namespace

W5Terms derive_w5(std::string_view topic, std::string_view content) {
  W5Terms terms;
  auto& who = terms[static_cast<int>(W::who)];
  if (const std::size_t colon = topic.find(':');
      colon != std::string_view::npos && colon > 0 && colon <= 32) {
    std::string_view speaker = topic.substr(0, colon);
    if (speaker.find_first_of(" \t/\\") == std::string_view::npos) add_unique(who, lower(speaker));
  }
  if (content.find('@') != std::string_view::npos) find_mentions(content, who);

  auto& what = terms[static_cast<int>(W::what)];
  for (std::string& token : StripToTokens(topic)) {
    if (what.size() >= kMaxWhatTerms) break;
    const bool number = std::all_of(token.begin(), token.end(), [](char c) { return is_digit(c); });
    if (!number && !stop_words().contains(token)) add_unique(what, std::move(token));
  }

  auto& when = terms[static_cast<int>(W::when)];
  find_dates(topic, when);
  find_dates(content, when);
  // Cheap pre-checks keep the per-record cost of loading low.
  if (content.find_first_of("/\\") != std::string_view::npos)
    find_paths(content, terms[static_cast<int>(W::where)]);
  if (has_reason_cue(content)) find_reasons(content, terms[static_cast<int>(W::why)]);
  return terms;
}

void W5Web::add(const TopicNode* topic, const W5Terms& terms) {
  for (std::size_t w = 0; w < webs_.size(); ++w) {
    if (terms[w].empty()) continue;
    auto& mine = webs_[w].outbound[topic];
    for (const std::string& term : terms[w]) {
      auto it =
          std::find_if(mine.begin(), mine.end(), [&](const auto& e) { return e.first == term; });
      if (it != mine.end()) {
        ++it->second;
        continue;
      }
      mine.emplace_back(term, 1);
      webs_[w].inbound[term].push_back(topic);
    }
  }
}

void W5Web::remove(const TopicNode* topic, const W5Terms& terms) {
  for (std::size_t w = 0; w < webs_.size(); ++w) {
    if (terms[w].empty()) continue;
    auto out = webs_[w].outbound.find(topic);
    if (out == webs_[w].outbound.end()) continue;
    auto& mine = out->second;
    for (const std::string& term : terms[w]) {
      auto it =
          std::find_if(mine.begin(), mine.end(), [&](const auto& e) { return e.first == term; });
      if (it == mine.end() || --it->second > 0) continue;
      mine.erase(it);
      auto in = webs_[w].inbound.find(term);
      if (in == webs_[w].inbound.end()) continue;
      std::erase(in->second, topic);
      if (in->second.empty()) webs_[w].inbound.erase(in);
    }
    if (mine.empty()) webs_[w].outbound.erase(out);
  }
}

void W5Web::erase_topic(const TopicNode* topic) {
  for (Web& web : webs_) {
    auto out = web.outbound.find(topic);
    if (out == web.outbound.end()) continue;
    for (const auto& [term, count] : out->second) {
      auto in = web.inbound.find(term);
      if (in == web.inbound.end()) continue;
      std::erase(in->second, topic);
      if (in->second.empty()) web.inbound.erase(in);
    }
    web.outbound.erase(out);
  }
}

void W5Web::clear() {
  for (Web& web : webs_) {
    web.outbound.clear();
    web.inbound.clear();
  }
}

std::vector<std::string> W5Web::terms_of(const TopicNode* topic, W w) const {
  std::vector<std::string> out;
  const Web& web = webs_[static_cast<int>(w)];
  if (auto it = web.outbound.find(topic); it != web.outbound.end())
    for (const auto& [term, count] : it->second) out.push_back(term);
  return out;
}

std::vector<const TopicNode*> W5Web::topics_with(W w, std::string_view prefix) const {
  const std::string folded = lower(prefix);
  const Web& web = webs_[static_cast<int>(w)];
  std::vector<const TopicNode*> out;
  std::unordered_set<const TopicNode*> seen;
  for (auto it = web.inbound.lower_bound(folded);
       it != web.inbound.end() && it->first.starts_with(folded); ++it)
    for (const TopicNode* topic : it->second)
      if (seen.insert(topic).second) out.push_back(topic);
  return out;
}

}  // namespace kx::memory
