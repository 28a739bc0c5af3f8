#pragma once
// The synthetic memo workload shared by the memory benchmarks: 200-byte memos of
// words drawn, skewed towards the front, from a fixed vocabulary of made-up words,
// so the keyword index sees a realistic mix of very common and rare keywords.
#include <cstdint>
#include <random>
#include <string>
#include <vector>

namespace kx::bench {

inline std::vector<std::string> vocabulary(std::size_t size = 50000) {
  static const char* syllables[] = {"ka",  "lo",  "mi",  "ren", "tas", "vo",  "qui", "zem",
                                    "dor", "pel", "sun", "bri", "gat", "hux", "nim", "fro"};
  std::vector<std::string> words;
  for (std::size_t i = 0; i < size; ++i) {
    std::string word;
    std::size_t n = i + 16;
    while (n > 0) {
      word += syllables[n % 16];
      n /= 16;
    }
    words.push_back(word);
  }
  return words;
}

class MemoMaker {
 public:
  explicit MemoMaker(std::uint64_t seed = 42) : rng_(seed), words_(vocabulary()) {}

  // One memo of exactly `bytes` bytes (words separated by spaces).
  std::string memo(std::size_t bytes = 200) {
    std::string text;
    while (text.size() < bytes) {
      if (!text.empty()) text += ' ';
      text += word();
    }
    text.resize(bytes);
    return text;
  }
  // A word drawn with a skew: low indexes are far more common.
  const std::string& word() {
    const double u = uniform_(rng_);
    return words_[static_cast<std::size_t>(u * u * u * static_cast<double>(words_.size()))];
  }
  const std::vector<std::string>& words() const { return words_; }

 private:
  std::mt19937_64 rng_;
  std::uniform_real_distribution<double> uniform_{0.0, 1.0};
  std::vector<std::string> words_;
};

}  // namespace kx::bench
