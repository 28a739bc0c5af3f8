#include "memory/related_terms.hpp"

#include <algorithm>

namespace kx::memory {
namespace {

constexpr std::size_t kKeyLetters = 5;
constexpr std::size_t kMinKeyLetters = 4;

// Longest first, so "ations" wins over "s".
constexpr std::string_view kSuffixes[] = {"ations", "ation", "izers", "izer", "ized", "izes",
                                          "ings",   "ing",   "ness",  "ment", "ers",  "ies",
                                          "ed",     "er",    "es",    "ly",   "s"};

}  // namespace

std::string relatedness_key(std::string_view keyword) {
  std::size_t letters = 0;
  while (letters < keyword.size() && keyword[letters] >= 'a' && keyword[letters] <= 'z') ++letters;
  std::string_view stem = keyword.substr(0, letters);
  for (std::string_view suffix : kSuffixes) {
    if (stem.size() >= suffix.size() + kMinKeyLetters && stem.ends_with(suffix)) {
      stem.remove_suffix(suffix.size());
      break;
    }
  }
  if (stem.size() < kMinKeyLetters) return {};
  return std::string(stem.substr(0, kKeyLetters));
}

void RelatedTerms::link(const std::string& keyword) {
  std::string key = relatedness_key(keyword);
  if (key.empty()) return;
  groups_[std::move(key)].push_back(keyword);
}

void RelatedTerms::unlink(const std::string& keyword) {
  const auto group = groups_.find(relatedness_key(keyword));
  if (group == groups_.end()) return;
  auto& members = group->second;
  members.erase(std::remove(members.begin(), members.end(), keyword), members.end());
  if (members.empty()) groups_.erase(group);
}

std::vector<std::string_view> RelatedTerms::related(std::string_view word) const {
  std::vector<std::string_view> out;
  const auto group = groups_.find(relatedness_key(word));
  if (group == groups_.end()) return out;
  for (const std::string& member : group->second)
    if (member != word) out.push_back(member);
  return out;
}

}  // namespace kx::memory
