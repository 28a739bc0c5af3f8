#include "search/grep_options.hpp"

#include <charconv>

namespace kx::search {

const char* const kGrepUsage =
    "usage: grep [flags] <pattern> [dir|file|glob ...]\n"
    "  scope    default = the active store's root (else the project root); cached\n"
    "           trees are searched IN RAM (live working bytes), the rest walks disk\n"
    "  pattern  ECMAScript regex (grep -E flavor); -F = literal string\n"
    "  -i ignore case   -v invert   -n line numbers   -w whole words   -x whole lines\n"
    "  -l files with matches   -L files without   -c per-file counts   -o only the match\n"
    "  -A/-B/-C <n> context after/before/both   -m <n> stop after n matches per file\n"
    "  -p (--hits) publish ONE $[] register per hit as path:line, sliceable with $[a..b]\n"
    "  -e <pat> extra pattern (repeatable, OR'd)   -F fixed string   -q quiet\n"
    "  -h/-H hide/force filenames   -r accepted (always recursive)   -s no error notes\n"
    "  --include <glob> / --exclude <glob> filter files (repeatable)   -- ends flags\n"
    "  options (default ON; cfg: grep.cachesearchedfiles / grep.trackedithistory):\n"
    "  --cache/--no-cache   CacheSearchedFiles — retain RAM copies of disk-read files\n"
    "  --track/--no-track   TrackEditHistory — remember searched trees; later tool\n"
    "                       edits archive pre-edit bytes under .Kestrune (edited\n"
    "                       files only, no file events; enroll for live tracking)";

std::vector<std::string> split_grep_words(std::string_view text) {
  std::vector<std::string> words;
  std::string word;
  bool in_word = false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    char c = text[i];
    if (c == ' ' || c == '\t' || c == '\n' || c == '\r') {
      if (in_word) words.push_back(std::move(word));
      word.clear();
      in_word = false;
      continue;
    }
    in_word = true;
    if (c == '"' || c == '\'') {
      std::size_t j = i + 1;
      for (; j < text.size() && text[j] != c; ++j) {
        if (c == '"' && text[j] == '\\' && j + 1 < text.size() && text[j + 1] == '"') ++j;
        word += text[j];
      }
      i = j;  // the closing quote, or the end of an unclosed one
      continue;
    }
    word += c;
  }
  if (in_word) words.push_back(std::move(word));
  return words;
}

namespace {

std::optional<std::size_t> parse_count(std::string_view text) {
  std::size_t value = 0;
  if (text.empty()) return std::nullopt;
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (ec != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

// "--cache", "--cache=on|true" and "--no-cache", "--cache=off|false".
std::optional<std::optional<bool>> parse_switch(std::string_view word, std::string_view name) {
  std::string on = "--" + std::string(name);
  if (word == on || word == on + "=on" || word == on + "=true") return std::optional<bool>(true);
  if (word == "--no-" + std::string(name) || word == on + "=off" || word == on + "=false")
    return std::optional<bool>(false);
  return std::nullopt;
}

}  // namespace

std::optional<std::string> parse_grep_options(const std::vector<std::string>& words,
                                              GrepOptions& options) {
  bool have_pattern = false;
  bool flags_ended = false;
  std::vector<std::string> extra_patterns;
  for (std::size_t i = 0; i < words.size(); ++i) {
    const std::string& word = words[i];
    auto next_value = [&]() -> const std::string* {
      return i + 1 < words.size() ? &words[++i] : nullptr;
    };
    if (flags_ended || word.size() < 2 || word[0] != '-') {
      // The first plain word is the pattern unless -e already gave one.
      if (!have_pattern && extra_patterns.empty()) {
        options.patterns.push_back(word);
        have_pattern = true;
      } else {
        options.scope.push_back(word);
      }
      continue;
    }
    if (word == "--") {
      flags_ended = true;
      continue;
    }
    if (word.starts_with("--")) {
      if (word == "--help") return std::string(kGrepUsage);
      if (word == "--hits") {
        options.publish = true;
      } else if (word == "--include" || word == "--exclude") {
        const std::string* value = next_value();
        if (value == nullptr) return "ERROR: " + word + " needs a glob\n";
        (word == "--include" ? options.includes : options.excludes).push_back(*value);
      } else if (word.starts_with("--include=")) {
        options.includes.push_back(word.substr(10));
      } else if (word.starts_with("--exclude=")) {
        options.excludes.push_back(word.substr(10));
      } else if (auto cache = parse_switch(word, "cache")) {
        options.cache = *cache;
      } else if (auto track = parse_switch(word, "track")) {
        options.track = *track;
      } else {
        return "ERROR: unknown flag " + word;
      }
      continue;
    }
    // A cluster of short flags ("-in"); a flag that takes a value takes the rest
    // of the cluster ("-A3") or the next word.
    for (std::size_t k = 1; k < word.size(); ++k) {
      char letter = word[k];
      switch (letter) {
        case 'i':
          options.ignore_case = true;
          break;
        case 'v':
          options.invert = true;
          break;
        case 'n':
          options.line_numbers = true;
          break;
        case 'w':
          options.words = true;
          break;
        case 'x':
          options.whole_lines = true;
          break;
        case 'l':
          options.files_with = true;
          options.files_without = false;
          break;
        case 'L':
          options.files_without = true;
          options.files_with = false;
          break;
        case 'c':
          options.count = true;
          break;
        case 'o':
          options.only_matching = true;
          break;
        case 'q':
          options.quiet = true;
          break;
        case 'F':
          options.fixed = true;
          break;
        case 'p':
          options.publish = true;
          break;
        case 's':
          options.suppress_notes = true;
          break;
        case 'h':
          options.names = FileNames::kHide;
          break;
        case 'H':
          options.names = FileNames::kForce;
          break;
        case 'r':
        case 'R':
          break;
        case 'e':
        case 'A':
        case 'B':
        case 'C':
        case 'm': {
          std::string value = word.substr(k + 1);
          bool have_value = !value.empty();
          if (!have_value) {
            if (const std::string* next = next_value()) {
              value = *next;
              have_value = true;
            }
          }
          if (letter == 'e') {
            if (!have_value) return std::string("ERROR: -e needs a pattern\n");
            extra_patterns.push_back(value);
          } else {
            auto number = have_value ? parse_count(value) : std::nullopt;
            if (!number) return "ERROR: -" + std::string(1, letter) + " needs a number\n";
            if (letter != 'm') options.context = true;
            if (letter == 'A' || letter == 'C') options.after = *number;
            if (letter == 'B' || letter == 'C') options.before = *number;
            if (letter == 'm') options.max_count = *number;
          }
          k = word.size();
          break;
        }
        default:
          return "ERROR: unknown flag -" + std::string(1, letter);
      }
    }
  }
  for (auto& extra : extra_patterns) options.patterns.push_back(std::move(extra));
  if (options.patterns.empty()) return std::string(kGrepUsage);
  return std::nullopt;
}

std::string combined_pattern(const GrepOptions& options) {
  auto escaped = [&](const std::string& pattern) {
    if (!options.fixed) return pattern;
    std::string out;
    for (char c : pattern) {
      if (std::string_view("\\^$.|?*+()[]{}").find(c) != std::string_view::npos) out += '\\';
      out += c;
    }
    return out;
  };
  std::string joined = escaped(options.patterns.front());
  for (std::size_t i = 1; i < options.patterns.size(); ++i)
    joined += "|(?:" + escaped(options.patterns[i]) + ")";
  if (options.whole_lines) return "^(?:" + joined + ")$";
  if (options.words) return "\\b(?:" + joined + ")\\b";
  return joined;
}

}  // namespace kx::search
