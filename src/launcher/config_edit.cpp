#include "launcher/config_edit.hpp"

#include <set>
#include <vector>

#include "platform/durable_file.hpp"
#include "platform/read_file.hpp"

namespace kx::launcher {
namespace {

using Json = nlohmann::json;

bool blank(char c) {
  return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

std::size_t skip_string(const std::string& s, std::size_t pos) {  // pos at the quote
  for (++pos; pos < s.size(); ++pos) {
    if (s[pos] == '\\') {
      ++pos;
    } else if (s[pos] == '"') {
      return pos + 1;
    }
  }
  return std::string::npos;
}

// The text with comments and trailing commas blanked out: same length, so a
// position in it is a position in the original.
std::string clean_jsonc(const std::string& text) {
  std::string s = text;
  for (std::size_t i = 0; i < s.size();) {
    if (s[i] == '"') {
      i = skip_string(s, i);
      if (i == std::string::npos) break;
    } else if (s.compare(i, 2, "//") == 0) {
      while (i < s.size() && s[i] != '\n') s[i++] = ' ';
    } else if (s.compare(i, 2, "/*") == 0) {
      std::size_t end = s.find("*/", i + 2);
      end = end == std::string::npos ? s.size() : end + 2;
      for (; i < end; ++i)
        if (s[i] != '\n') s[i] = ' ';
    } else {
      ++i;
    }
  }
  // Trailing commas: a comma whose next non-blank is a closing bracket.
  bool in_string = false;
  for (std::size_t i = 0; i < s.size(); ++i) {
    if (s[i] == '"') {
      std::size_t end = skip_string(s, i);
      if (end == std::string::npos) break;
      i = end - 1;
      continue;
    }
    if (s[i] != ',' || in_string) continue;
    std::size_t j = i + 1;
    while (j < s.size() && blank(s[j])) ++j;
    if (j < s.size() && (s[j] == '}' || s[j] == ']')) s[i] = ' ';
  }
  return s;
}

std::size_t skip_blanks(const std::string& s, std::size_t pos) {
  while (pos < s.size() && blank(s[pos])) ++pos;
  return pos;
}

// End of the value starting at `pos` in cleaned, valid JSON.
std::size_t skip_value(const std::string& s, std::size_t pos) {
  if (s[pos] == '"') return skip_string(s, pos);
  if (s[pos] == '{' || s[pos] == '[') {
    int depth = 0;
    for (; pos < s.size(); ++pos) {
      if (s[pos] == '"') {
        pos = skip_string(s, pos) - 1;
      } else if (s[pos] == '{' || s[pos] == '[') {
        ++depth;
      } else if ((s[pos] == '}' || s[pos] == ']') && --depth == 0) {
        return pos + 1;
      }
    }
    return s.size();
  }
  while (pos < s.size() && !blank(s[pos]) && s[pos] != ',' && s[pos] != '}' && s[pos] != ']') ++pos;
  return pos;
}

struct Member {
  std::string key;
  std::size_t key_start, value_start, value_end;
};

// The members of the object whose '{' is at `open`, in cleaned, valid JSON.
std::vector<Member> members_of(const std::string& s, std::size_t open) {
  std::vector<Member> out;
  std::size_t pos = skip_blanks(s, open + 1);
  while (pos < s.size() && s[pos] == '"') {
    Member m;
    m.key_start = pos;
    std::size_t key_end = skip_string(s, pos);
    m.key = Json::parse(s.substr(pos, key_end - pos)).get<std::string>();
    pos = skip_blanks(s, skip_blanks(s, key_end) + 1);  // past ':'
    m.value_start = pos;
    m.value_end = skip_value(s, pos);
    out.push_back(m);
    pos = skip_blanks(s, m.value_end);
    if (pos < s.size() && s[pos] == ',') pos = skip_blanks(s, pos + 1);
  }
  return out;
}

// The blanks at the start of the line holding `pos`.
std::string indent_at(const std::string& s, std::size_t pos) {
  std::size_t line = s.rfind('\n', pos);
  line = line == std::string::npos ? 0 : line + 1;
  std::size_t end = line;
  while (end < s.size() && (s[end] == ' ' || s[end] == '\t')) ++end;
  return s.substr(line, end - line);
}

// Inserts `"key": value` as the first member of the object opened at `open`, in
// the layout of the members already there.
std::string insert_member(const std::string& text, const std::string& clean, std::size_t open,
                          const std::string& key, const std::string& value) {
  std::vector<Member> existing = members_of(clean, open);
  std::string member = Json(key).dump() + ": " + value;
  std::string outer = indent_at(clean, open);
  if (existing.empty()) {
    std::size_t close = skip_blanks(clean, open + 1);
    return text.substr(0, open + 1) + "\n" + outer + "  " + member + "\n" + outer +
           text.substr(close);
  }
  std::size_t first = existing[0].key_start;
  bool own_line = clean.find('\n', open) < first;
  std::string gap = own_line ? ",\n" + indent_at(clean, first) : ", ";
  return text.substr(0, first) + member + gap + text.substr(first);
}

std::string trim_copy(std::string_view s) {
  std::size_t a = 0, b = s.size();
  while (a < b && blank(s[a])) ++a;
  while (b > a && blank(s[b - 1])) --b;
  return std::string(s.substr(a, b - a));
}

std::vector<std::string> split_lines(const std::string& text) {
  std::vector<std::string> lines;
  std::size_t start = 0;
  while (start < text.size()) {
    std::size_t eol = text.find('\n', start);
    if (eol == std::string::npos) eol = text.size();
    lines.push_back(text.substr(start, eol - start));
    start = eol + 1;
  }
  return lines;
}

// A line without its comment (outside strings) and surrounding blanks.
std::string toml_code(const std::string& line) {
  char quote = 0;
  for (std::size_t i = 0; i < line.size(); ++i) {
    char c = line[i];
    if (quote) {
      if (c == '\\' && quote == '"')
        ++i;
      else if (c == quote)
        quote = 0;
    } else if (c == '"' || c == '\'') {
      quote = c;
    } else if (c == '#') {
      return trim_copy(line.substr(0, i));
    }
  }
  return trim_copy(line);
}

// A TOML value starting at `pos`; returns the position after it or npos.
std::size_t toml_value(const std::string& s, std::size_t pos);

std::size_t toml_skip_space(const std::string& s, std::size_t pos, bool newlines) {
  while (pos < s.size()) {
    if (s[pos] == ' ' || s[pos] == '\t' || (newlines && (s[pos] == '\n' || s[pos] == '\r'))) {
      ++pos;
    } else if (newlines && s[pos] == '#') {
      while (pos < s.size() && s[pos] != '\n') ++pos;
    } else {
      break;
    }
  }
  return pos;
}

std::size_t toml_string(const std::string& s, std::size_t pos) {
  char q = s[pos];
  bool multi = s.compare(pos, 3, std::string(3, q)) == 0;
  if (multi) {
    std::size_t end = pos + 3;
    for (;;) {
      end = s.find(std::string(3, q), end);
      if (end == std::string::npos) return end;
      if (q == '"' && s[end - 1] == '\\') {
        ++end;
        continue;
      }
      end += 3;
      while (end < s.size() && s[end] == q) ++end;  // up to two quotes may close the body
      return end;
    }
  }
  for (++pos; pos < s.size() && s[pos] != '\n'; ++pos) {
    if (q == '"' && s[pos] == '\\')
      ++pos;
    else if (s[pos] == q)
      return pos + 1;
  }
  return std::string::npos;
}

std::size_t toml_key(const std::string& s, std::size_t pos) {
  std::size_t start = pos;
  for (;;) {
    pos = toml_skip_space(s, pos, false);
    if (pos < s.size() && (s[pos] == '"' || s[pos] == '\'')) {
      pos = toml_string(s, pos);
      if (pos == std::string::npos) return pos;
    } else {
      std::size_t begin = pos;
      while (pos < s.size() &&
             (std::isalnum(static_cast<unsigned char>(s[pos])) || s[pos] == '_' || s[pos] == '-'))
        ++pos;
      if (pos == begin) return std::string::npos;
    }
    pos = toml_skip_space(s, pos, false);
    if (pos < s.size() && s[pos] == '.') {
      ++pos;
      continue;
    }
    return pos > start ? pos : std::string::npos;
  }
}

std::size_t toml_value(const std::string& s, std::size_t pos) {
  if (pos >= s.size()) return std::string::npos;
  char c = s[pos];
  if (c == '"' || c == '\'') return toml_string(s, pos);
  if (c == '[') {
    pos = toml_skip_space(s, pos + 1, true);
    while (pos < s.size() && s[pos] != ']') {
      pos = toml_value(s, pos);
      if (pos == std::string::npos) return pos;
      pos = toml_skip_space(s, pos, true);
      if (pos < s.size() && s[pos] == ',')
        pos = toml_skip_space(s, pos + 1, true);
      else if (pos < s.size() && s[pos] != ']')
        return std::string::npos;
    }
    return pos < s.size() ? pos + 1 : std::string::npos;
  }
  if (c == '{') {
    pos = toml_skip_space(s, pos + 1, false);
    while (pos < s.size() && s[pos] != '}') {
      pos = toml_key(s, pos);
      if (pos == std::string::npos || s[pos] != '=') return std::string::npos;
      pos = toml_value(s, toml_skip_space(s, pos + 1, false));
      if (pos == std::string::npos) return pos;
      pos = toml_skip_space(s, pos, false);
      if (pos < s.size() && s[pos] == ',')
        pos = toml_skip_space(s, pos + 1, false);
      else if (pos < s.size() && s[pos] != '}')
        return std::string::npos;
    }
    return pos < s.size() ? pos + 1 : std::string::npos;
  }
  std::size_t begin = pos;
  while (pos < s.size() && (std::isalnum(static_cast<unsigned char>(s[pos])) ||
                            std::string_view("+-_.:").find(s[pos]) != std::string_view::npos ||
                            (s[pos] == ' ' && pos + 1 < s.size() &&
                             std::isdigit(static_cast<unsigned char>(s[pos + 1])) &&
                             std::isdigit(static_cast<unsigned char>(s[pos - 1])))))
    ++pos;
  return pos > begin ? pos : std::string::npos;
}

}  // namespace

std::optional<Json> parse_jsonc(const std::string& text, std::string& error) {
  try {
    std::string clean = clean_jsonc(text);
    if (trim_copy(clean).empty()) return Json::object();
    return Json::parse(clean);
  } catch (const std::exception& e) {
    error = e.what();
    return std::nullopt;
  }
}

std::optional<std::string> jsonc_with_entry(const std::string& text, const std::string& container,
                                            const std::string& key, const Json& value,
                                            std::string& error) {
  auto parsed = parse_jsonc(text, error);
  if (!parsed) return std::nullopt;
  if (!parsed->is_object()) {
    error = "the file does not hold a JSON object";
    return std::nullopt;
  }
  std::string clean = clean_jsonc(text);
  if (trim_copy(clean).empty()) return Json{{container, {{key, value}}}}.dump(2) + "\n";
  std::size_t top = skip_blanks(clean, 0);
  for (const Member& m : members_of(clean, top)) {
    if (m.key != container) continue;
    if (clean[m.value_start] != '{') {
      error = "\"" + container + "\" is not an object";
      return std::nullopt;
    }
    for (const Member& entry : members_of(clean, m.value_start)) {
      if (entry.key != key) continue;
      if (Json::parse(clean.substr(entry.value_start, entry.value_end - entry.value_start)) ==
          value)
        return text;
      return text.substr(0, entry.value_start) + value.dump() + text.substr(entry.value_end);
    }
    return insert_member(text, clean, m.value_start, key, value.dump());
  }
  return insert_member(text, clean, top, container, Json{{key, value}}.dump());
}

bool toml_well_formed(const std::string& s, std::string& error) {
  std::set<std::string> tables;
  std::size_t pos = 0;
  int line = 1;
  auto fail = [&](const std::string& what) {
    error = "line " + std::to_string(line) + ": " + what;
    return false;
  };
  while (pos < s.size()) {
    pos = toml_skip_space(s, pos, false);
    if (pos >= s.size()) break;
    char c = s[pos];
    if (c == '\n' || c == '\r' || c == '#') {
      while (pos < s.size() && s[pos] != '\n') ++pos;
      ++pos;
      ++line;
      continue;
    }
    std::size_t start = pos;
    if (c == '[') {
      bool array = s.compare(pos, 2, "[[") == 0;
      std::size_t end = toml_key(s, pos + (array ? 2 : 1));
      if (end == std::string::npos || s.compare(end, array ? 2 : 1, array ? "]]" : "]") != 0)
        return fail("malformed table header");
      std::string name = toml_code(s.substr(start, end - start));
      if (!array && !tables.insert(name).second) return fail("table " + name + "] defined twice");
      pos = end + (array ? 2 : 1);
    } else {
      pos = toml_key(s, pos);
      if (pos == std::string::npos || pos >= s.size() || s[pos] != '=')
        return fail("expected key = value");
      pos = toml_value(s, toml_skip_space(s, pos + 1, false));
      if (pos == std::string::npos) return fail("malformed value");
    }
    for (std::size_t i = start; i < pos; ++i) line += s[i] == '\n';
    pos = toml_skip_space(s, pos, false);
    if (pos < s.size() && s[pos] == '#')
      while (pos < s.size() && s[pos] != '\n') ++pos;
    if (pos < s.size() && s[pos] == '\r') ++pos;
    if (pos < s.size() && s[pos] != '\n') return fail("unexpected text after the value");
  }
  return true;
}

std::optional<std::string> toml_with_table(const std::string& text, const std::string& table,
                                           const std::string& body, std::string& error) {
  if (!toml_well_formed(text, error)) return std::nullopt;
  const std::string parent = table.substr(0, table.rfind('.'));
  const std::string leaf = table.substr(table.rfind('.') + 1);
  std::vector<std::string> lines = split_lines(text);
  std::string section;
  std::size_t header = std::string::npos;
  for (std::size_t i = 0; i < lines.size(); ++i) {
    std::string code = toml_code(lines[i]);
    if (code.starts_with("[")) {
      section = code;
      if (code == "[" + table + "]") header = i;
      continue;
    }
    std::string key = trim_copy(code.substr(0, code.find('=')));
    bool defines = (section.empty() && (key == parent || key.starts_with(parent + "."))) ||
                   (section == "[" + parent + "]" && (key == leaf || key.starts_with(leaf + ".")));
    if (code.find('=') != std::string::npos && defines) {
      error = "line " + std::to_string(i + 1) + " defines " + parent +
              " inline; add the kx entry there by hand";
      return std::nullopt;
    }
  }
  std::vector<std::string> wanted = split_lines(body);
  if (header == std::string::npos) {
    std::string out = text;
    if (!out.empty() && !out.ends_with("\n")) out += "\n";
    if (!out.empty()) out += "\n";
    return out + "[" + table + "]\n" + body;
  }
  std::size_t end = header + 1;
  while (end < lines.size() && !toml_code(lines[end]).starts_with("[")) ++end;
  std::vector<std::string> present;
  for (std::size_t i = header + 1; i < end; ++i)
    if (!toml_code(lines[i]).empty()) present.push_back(toml_code(lines[i]));
  if (present == wanted) return text;
  // Blank lines before the next table stay where they were.
  std::size_t keep_from = end;
  while (keep_from > header + 1 && trim_copy(lines[keep_from - 1]).empty()) --keep_from;
  std::string out;
  for (std::size_t i = 0; i <= header; ++i) out += lines[i] + "\n";
  out += body;
  for (std::size_t i = keep_from; i < lines.size(); ++i) out += lines[i] + "\n";
  if (!text.ends_with("\n") && out.ends_with("\n")) out.pop_back();
  return out;
}

FileEdit write_checked(const std::filesystem::path& path, const std::string& old_text, bool existed,
                       const std::string& text) {
  FileEdit edit;
  if (existed && text == old_text) {
    edit.outcome = EditOutcome::kUnchanged;
    edit.detail = "unchanged";
    return edit;
  }
  std::error_code ec;
  std::filesystem::create_directories(path.parent_path(), ec);
  std::string reason;
  if (existed) {
    std::filesystem::path backup = path;
    backup += ".kx-backup";
    if (!platform::replace_file_durable(backup, old_text, reason)) {
      edit.detail = "could not keep a backup: " + reason;
      return edit;
    }
  }
  if (!platform::replace_file_durable(path, text, reason)) {
    edit.detail = "could not write: " + reason;
    return edit;
  }
  std::string back;
  if (!platform::read_whole_file(path, back, text.size()) || back != text) {
    edit.detail = "the file reads back differently";
    return edit;
  }
  edit.outcome = EditOutcome::kWritten;
  edit.detail = existed ? "updated (backup " + path.filename().string() + ".kx-backup)" : "created";
  return edit;
}

}  // namespace kx::launcher
