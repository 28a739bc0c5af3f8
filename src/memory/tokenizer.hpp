#pragma once
// The one tokenizer of the memory store: memo content, file names and the
// striptotokens verb all go through StripToTokens, so what a user sees from the verb
// is exactly what the keyword index sees.
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

namespace kx::memory {

// Longest token kept; a longer run is dropped whole, never truncated.
inline constexpr std::size_t kMaxTokenBytes = 255;

// Splits text into distinct tokens in order of first appearance. A token is 2..255
// bytes of [a-z0-9] (ASCII letters folded) with '.' allowed between two such bytes.
std::vector<std::string> StripToTokens(std::string_view text);

// The common English words kept with the tokenizer. Built once; token emission
// deliberately does not consult it (two-letter stop words stay searchable).
const std::unordered_set<std::string_view>& stop_words();

}  // namespace kx::memory
