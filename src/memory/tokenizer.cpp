#include "memory/tokenizer.hpp"

namespace kx::memory {
namespace {

char fold(unsigned char c) {
  return (c >= 'A' && c <= 'Z') ? static_cast<char>(c + 32) : static_cast<char>(c);
}

bool is_word_byte(char c) {
  return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9');
}

}  // namespace

const std::unordered_set<std::string_view>& stop_words() {
  // A function-local static is initialised exactly once, thread-safely.
  static const std::unordered_set<std::string_view> words = {
      "a",    "about", "all",   "also", "am",   "an",    "and",   "any",   "are",  "as",   "at",
      "be",   "been",  "but",   "by",   "can",  "did",   "do",    "does",  "for",  "from", "had",
      "has",  "have",  "he",    "her",  "here", "him",   "his",   "how",   "i",    "if",   "in",
      "into", "is",    "it",    "its",  "just", "me",    "more",  "my",    "no",   "not",  "of",
      "off",  "on",    "or",    "our",  "out",  "over",  "she",   "so",    "some", "such", "than",
      "that", "the",   "their", "them", "then", "there", "these", "they",  "this", "to",   "too",
      "up",   "us",    "was",   "we",   "were", "what",  "when",  "which", "who",  "why",  "will",
      "with", "would", "you",   "your"};
  return words;
}

std::vector<std::string> StripToTokens(std::string_view text) {
  (void)stop_words();  // built on first use; not applied to emission
  std::vector<std::string> tokens;
  std::unordered_set<std::string> seen;
  std::string token;
  bool overflow = false;

  auto finish_run = [&] {
    if (!overflow && token.size() >= 2 && seen.insert(token).second) tokens.push_back(token);
    token.clear();
    overflow = false;
  };
  auto push = [&](char c) {
    if (token.size() < kMaxTokenBytes)
      token.push_back(c);
    else
      overflow = true;
  };

  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = fold(static_cast<unsigned char>(text[i]));
    if (is_word_byte(c)) {
      push(c);
    } else if (c == '.' && !token.empty() && i + 1 < text.size() &&
               is_word_byte(fold(static_cast<unsigned char>(text[i + 1])))) {
      push('.');
    } else {
      finish_run();
    }
  }
  finish_run();
  return tokens;
}

}  // namespace kx::memory
