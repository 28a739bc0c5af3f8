#include "vfs/policy.hpp"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <sstream>

namespace kst {
namespace {

std::string lower(std::string_view s) {
  std::string out(s);
  for (char& c : out) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return out;
}

std::vector<std::string> split_list(std::string_view list) {
  std::vector<std::string> out;
  std::size_t start = 0;
  while (start <= list.size()) {
    std::size_t end = list.find(',', start);
    if (end == std::string_view::npos) end = list.size();
    std::string item = lower(list.substr(start, end - start));
    if (!item.empty()) out.push_back(item[0] == '.' ? item : "." + item);
    start = end + 1;
  }
  return out;
}

std::string join_list(const std::vector<std::string>& items) {
  std::string out;
  for (const auto& item : items) out += (out.empty() ? "" : ",") + item;
  return out;
}

bool parse_ext(std::string_view value, Policy& policy) {
  std::string v = lower(value);
  if (v == "none") {
    policy.ext = ExtRule::kNone;
  } else if (v == "default" || v == "defaults") {
    policy.ext = ExtRule::kDefault;
  } else if (v.starts_with("only:")) {
    policy.ext = ExtRule::kOnly;
    policy.extensions = split_list(std::string_view(v).substr(5));
  } else if (v.starts_with("allbut:") || v.starts_with("except:")) {
    policy.ext = ExtRule::kAllBut;
    policy.extensions = split_list(std::string_view(v).substr(7));
  } else {
    return false;
  }
  if ((policy.ext == ExtRule::kOnly || policy.ext == ExtRule::kAllBut) && policy.extensions.empty())
    return false;
  return true;
}

}  // namespace

std::optional<std::uint64_t> parse_size(std::string_view text) {
  std::string t = lower(text);
  std::size_t digits = 0;
  while (digits < t.size() &&
         (std::isdigit(static_cast<unsigned char>(t[digits])) || t[digits] == '.'))
    ++digits;
  if (digits == 0) return std::nullopt;
  double number = 0;
  try {
    number = std::stod(t.substr(0, digits));
  } catch (...) {
    return std::nullopt;
  }
  std::string unit = t.substr(digits);
  double scale = 0;
  if (unit.empty() || unit == "b")
    scale = 1;
  else if (unit == "k" || unit == "kb")
    scale = 1024.0;
  else if (unit == "m" || unit == "mb")
    scale = 1024.0 * 1024;
  else if (unit == "g" || unit == "gb")
    scale = 1024.0 * 1024 * 1024;
  else if (unit == "t" || unit == "tb")
    scale = 1024.0 * 1024 * 1024 * 1024;
  else
    return std::nullopt;
  return static_cast<std::uint64_t>(number * scale);
}

std::string format_size(std::uint64_t bytes) {
  static const char* units[] = {"KB", "MB", "GB", "TB"};
  if (bytes < 1024) return std::to_string(bytes) + " B";
  double value = static_cast<double>(bytes) / 1024;
  int unit = 0;
  while (value >= 1024 && unit < 3) {
    value /= 1024;
    ++unit;
  }
  char text[32];
  std::snprintf(text, sizeof text, "%.1f %s", value, units[unit]);
  return text;
}

std::optional<Policy> parse_policy(std::string_view flags, std::string& error) {
  Policy policy;
  std::istringstream words{std::string(flags)};
  std::string word;
  while (words >> word) {
    std::size_t eq = word.find('=');
    std::string key = eq == std::string::npos ? word : word.substr(0, eq);
    std::string value = eq == std::string::npos ? "" : word.substr(eq + 1);
    std::string v = lower(value);
    if (eq == std::string::npos) {
      error = "unknown policy flag '" + word + "' (scope=|ext=|watch=|mode=)";
      return std::nullopt;
    }
    if (key == "scope") {
      if (v == "all")
        policy.scope = Scope::kAll;
      else if (v == "edited" || v == "editedonly" || v == "edited-only" || v == "editsonly")
        policy.scope = Scope::kEdited;
      else {
        error = "scope must be all|edited (got '" + value + "')";
        return std::nullopt;
      }
    } else if (key == "ext" || key == "exts" || key == "extensions") {
      if (!parse_ext(value, policy)) {
        error = "ext must be none|only:<.e,..>|allbut:<.e,..> (got '" + value + "')";
        return std::nullopt;
      }
    } else if (key == "watch" || key == "events" || key == "oob") {
      if (v == "on" || v == "true")
        policy.watch = true;
      else if (v == "off" || v == "false")
        policy.watch = false;
      else {
        error = "watch must be on|off (got '" + value + "')";
        return std::nullopt;
      }
    } else if (key == "max" || key == "maxsize" || key == "maxbytes" || key == "maxreposize") {
      auto size = parse_size(value);
      if (!size) {
        error = "max must be a size like 200mb / 1gb / 0 (got '" + value + "')";
        return std::nullopt;
      }
      policy.max_bytes = size;
    } else if (key == "mode" || key == "cache") {
      if (v == "vc" || v == "version" || v == "normal")
        policy.mode = StoreMode::kVersioned;
      else if (v == "cachewt" || v == "cachewritethrough" || v == "cache-write-through" ||
               v == "cachewritethrough-noversion")
        policy.mode = StoreMode::kCacheWriteThrough;
      else {
        error = "mode must be cachewt|vc (got '" + value + "')";
        return std::nullopt;
      }
    } else {
      error = "unknown policy flag '" + word + "' (scope=|ext=|watch=|mode=)";
      return std::nullopt;
    }
  }
  return policy;
}

std::string policy_text(const Policy& policy) {
  std::string text = policy.scope == Scope::kAll ? "scope=all" : "scope=edited";
  switch (policy.ext) {
    case ExtRule::kDefault:
      text += " ext=default";
      break;
    case ExtRule::kNone:
      text += " ext=none";
      break;
    case ExtRule::kOnly:
      text += " ext=only:" + join_list(policy.extensions);
      break;
    case ExtRule::kAllBut:
      text += " ext=allbut:" + join_list(policy.extensions);
      break;
  }
  text += policy.watch ? " watch=on" : " watch=off";
  if (policy.max_bytes) {
    std::uint64_t b = *policy.max_bytes;
    const std::uint64_t mb = 1024ull * 1024, gb = mb * 1024;
    text += " max=" + (b == 0        ? std::string("0")
                       : b % gb == 0 ? std::to_string(b / gb) + "gb"
                       : b % mb == 0 ? std::to_string(b / mb) + "mb"
                                     : std::to_string(b));
  }
  text += policy.mode == StoreMode::kVersioned ? " mode=vc" : " mode=cachewt";
  return text;
}

bool ext_admits(const Policy& policy, std::string_view file_name, std::string& rule) {
  std::size_t dot = file_name.rfind('.');
  std::string ext = dot == std::string_view::npos || dot == 0 ? "" : lower(file_name.substr(dot));
  bool listed =
      std::find(policy.extensions.begin(), policy.extensions.end(), ext) != policy.extensions.end();
  bool admitted = true;
  switch (policy.ext) {
    case ExtRule::kDefault:
      return true;
    case ExtRule::kNone:
      admitted = false;
      break;
    case ExtRule::kOnly:
      admitted = listed;
      break;
    case ExtRule::kAllBut:
      admitted = !listed;
      break;
  }
  if (!admitted) {
    rule = policy_text(policy);
    rule = rule.substr(rule.find("ext="));
    rule = rule.substr(0, rule.find(' '));
  }
  return admitted;
}

}  // namespace kst
