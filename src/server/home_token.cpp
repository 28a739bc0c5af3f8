#include "server/home_token.hpp"

#include <fstream>

#include "lang/text.hpp"
#include "platform/owner_only_file.hpp"
#include "server/sha1.hpp"

namespace kx::server {
namespace {

constexpr char kHex[] = "0123456789abcdef";

bool well_formed(std::string_view token) {
  if (token.size() != kTokenChars) return false;
  for (char c : token)
    if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'))) return false;
  return true;
}

std::string to_hex(const unsigned char* bytes, std::size_t size) {
  std::string out;
  for (std::size_t i = 0; i < size; ++i) {
    out += kHex[bytes[i] >> 4];
    out += kHex[bytes[i] & 0xf];
  }
  return out;
}

}  // namespace

std::filesystem::path token_file(const std::filesystem::path& home) {
  return home / "resident.token";
}

std::optional<std::string> read_token(const std::filesystem::path& file) {
  std::ifstream in(file, std::ios::binary);
  if (!in) return std::nullopt;
  std::string text;
  // A few bytes beyond a token suffice to tell a well-formed file from another.
  text.resize(kTokenChars + 64);
  in.read(text.data(), static_cast<std::streamsize>(text.size()));
  text.resize(static_cast<std::size_t>(in.gcount()));
  std::string_view token = lang::trim(text);
  if (!well_formed(token)) return std::nullopt;
  return std::string(token);
}

std::optional<std::string> ensure_token(const std::filesystem::path& file, std::string& warning) {
  std::error_code ec;
  bool existed = std::filesystem::exists(file, ec);
  if (auto token = read_token(file)) {
    if (platform::readable_by_others(file)) {
      std::string reason;
      if (!platform::restrict_to_owner(file, reason)) {
        warning = "the token file " + file.string() + " is readable by others (" + reason + ")";
        return std::nullopt;
      }
      warning =
          "the token file " + file.string() + " was readable by others; narrowed to its owner";
    }
    return token;
  }
  unsigned char bytes[kTokenChars / 2];
  if (!platform::secure_random(bytes, sizeof bytes)) {
    warning = "no secure random source for the resident's token";
    return std::nullopt;
  }
  std::string token = to_hex(bytes, sizeof bytes);
  std::filesystem::create_directories(file.parent_path(), ec);
  std::string reason;
  if (!platform::write_owner_only_file(file, token + "\n", reason)) {
    warning = "cannot write the token file " + file.string() + ": " + reason;
    return std::nullopt;
  }
  if (existed)
    warning = "the token file " + file.string() + " was damaged; a new token replaces it";
  return token;
}

std::string token_fingerprint(std::string_view token) {
  auto digest = sha1("kestrune home " + std::string(token));
  return to_hex(digest.data(), 6);
}

bool tokens_equal(std::string_view presented, std::string_view expected) {
  // Every byte of the expected token is looked at whatever was presented, so the
  // time says nothing about how much of a guess was right.
  unsigned difference = presented.size() == expected.size() ? 0u : 1u;
  for (std::size_t i = 0; i < expected.size(); ++i) {
    char given = i < presented.size() ? presented[i] : '\0';
    difference |= static_cast<unsigned char>(given ^ expected[i]);
  }
  return difference == 0 && !expected.empty();
}

}  // namespace kx::server
