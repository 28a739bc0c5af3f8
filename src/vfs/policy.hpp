#pragma once
// The version-control policy of an enrolled directory, given as flags such as
// "scope=all ext=only:.md,.txt watch=off max=1gb mode=vc".
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kst {

enum class Scope { kAll, kEdited };
enum class ExtRule { kDefault, kNone, kOnly, kAllBut };
enum class StoreMode { kVersioned, kCacheWriteThrough };

struct Policy {
  Scope scope = Scope::kAll;
  ExtRule ext = ExtRule::kDefault;
  std::vector<std::string> extensions;  // with their dot, for kOnly / kAllBut
  bool watch = true;
  std::optional<std::uint64_t> max_bytes;  // unset: the configured default; 0: unlimited
  StoreMode mode = StoreMode::kVersioned;

  bool operator==(const Policy&) const = default;
};

// Parses blank-separated flags. On error returns nothing and sets `error` to the
// sentence that follows "bad policy: ".
std::optional<Policy> parse_policy(std::string_view flags, std::string& error);

// The canonical flag text, parseable by parse_policy: "scope=all ext=default watch=on mode=vc".
std::string policy_text(const Policy& policy);

// Whether a file name passes the ext rule; when not, `rule` names the flag that excluded it.
bool ext_admits(const Policy& policy, std::string_view file_name, std::string& rule);

// "200mb", "1gb", "512kb", "4096", "0" -> bytes.
std::optional<std::uint64_t> parse_size(std::string_view text);

// 1536 -> "1.5 KB".
std::string format_size(std::uint64_t bytes);

}  // namespace kst
