#pragma once
// The home's secret: "<home>/resident.token", 64 lower-case hex characters (256
// random bits), readable by the owner alone. The resident creates it at boot and
// demands it on every private route; clients of the same home read it and send it.
// Reset: delete the file and restart the resident.
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace kx::server {

inline constexpr std::size_t kTokenChars = 64;

std::filesystem::path token_file(const std::filesystem::path& home);

// The file's token with surrounding white space trimmed; nothing when the file is
// missing, unreadable or does not hold a well-formed token.
std::optional<std::string> read_token(const std::filesystem::path& file);

// The token to serve with: the file's when it is well-formed (narrowed to the owner
// when others could read it), else a fresh one written owner-only. Nothing when no
// token could be kept; `warning` says why, or what was repaired.
std::optional<std::string> ensure_token(const std::filesystem::path& file, std::string& warning);

// A short public name for a token ("/health" shows it): a client compares it with
// its own home's before it sends anything. It reveals neither the token nor the path.
std::string token_fingerprint(std::string_view token);

// Compares in time independent of where the first difference lies.
bool tokens_equal(std::string_view presented, std::string_view expected);

}  // namespace kx::server
