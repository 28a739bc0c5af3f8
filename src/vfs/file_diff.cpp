#include "vfs/file_diff.hpp"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <new>
#include <span>

#include "lang/checksum.hpp"
#include "vfs/edit_frontier.hpp"
#include "vfs/lcs_rows.hpp"
#include "vfs/ond_diff.hpp"

namespace kst {
namespace {

using Ids = std::span<const std::uint32_t>;

// Hirschberg's recursion over line ids. a_base / b_base turn range positions back
// into line indices of the whole texts.
class Aligner {
 public:
  explicit Aligner(std::vector<ScriptLine>& out) : out_(out) {}

  void align(Ids a, std::uint32_t a_base, Ids b, std::uint32_t b_base) {
    if (a.empty()) {
      emit(LineTag::added, b_base, b.size());
      return;
    }
    if (b.empty()) {
      emit(LineTag::removed, a_base, a.size());
      return;
    }
    if (a.size() == 1) {
      for (std::size_t k = 0; k < b.size(); ++k) {
        if (b[k] != a[0]) continue;
        emit(LineTag::added, b_base, k);
        out_.push_back({LineTag::same, a_base});
        emit(LineTag::added, b_base + static_cast<std::uint32_t>(k) + 1, b.size() - k - 1);
        return;
      }
      out_.push_back({LineTag::removed, a_base});
      emit(LineTag::added, b_base, b.size());
      return;
    }

    // Equal ranges: the split below would land on the middle at every level (it is the
    // only point where the two halves' LCS add up to the whole), so every line pairs
    // with its twin. Saying so directly skips the rows.
    if (std::equal(a.begin(), a.end(), b.begin(), b.end())) {
      for (std::size_t k = 0; k < a.size(); ++k)
        out_.push_back({LineTag::same, a_base + static_cast<std::uint32_t>(k)});
      return;
    }

    const std::size_t mid = a.size() / 2;
    std::size_t split = 0;
    if (split_by_edits(a, b, mid, split)) {
      align(a.first(mid), a_base, b.first(split), b_base);
      align(a.subspan(mid), a_base + static_cast<std::uint32_t>(mid), b.subspan(split),
            b_base + static_cast<std::uint32_t>(split));
      return;
    }
    lcs_row(a.first(mid), b, forward_);
    reversed_a_.assign(a.rbegin(), a.rend() - static_cast<std::ptrdiff_t>(mid));
    reversed_b_.assign(b.rbegin(), b.rend());
    lcs_row(reversed_a_, reversed_b_, backward_);

    // backward_[m - k] is the LCS of the second half with b[k..m).
    const std::size_t m = b.size();
    std::uint32_t best = 0;
    for (std::size_t k = 0; k <= m; ++k) {
      const std::uint32_t sum = forward_[k] + backward_[m - k];
      if (k == 0 || sum > best) {
        best = sum;
        split = k;
      }
    }
    align(a.first(mid), a_base, b.first(split), b_base);
    align(a.subspan(mid), a_base + static_cast<std::uint32_t>(mid), b.subspan(split),
          b_base + static_cast<std::uint32_t>(split));
  }

 private:
  // The same split point as the rows below give, found from edit distances when the
  // two ranges differ by few edits. A split (mid, j) lies on a longest common
  // subsequence exactly when the distances to it from both ends add up to the whole
  // distance, so the first such j is the first point of largest LCS sum. False when
  // the ranges differ too much for this to be the cheaper way.
  bool split_by_edits(Ids a, Ids b, std::size_t mid, std::size_t& split) {
    const double cells = static_cast<double>(a.size()) * static_cast<double>(b.size());
    const auto cap = static_cast<std::uint32_t>(std::max(16.0, std::sqrt(cells) / 8));
    const std::optional<std::uint32_t> whole = edits_to_row(a, b, mid, cap, forward_);
    if (!whole) return false;
    reversed_a_.assign(a.rbegin(), a.rend());
    reversed_b_.assign(b.rbegin(), b.rend());
    (void)edits_to_row(reversed_a_, reversed_b_, a.size() - mid, *whole, backward_);
    const std::size_t m = b.size();
    for (std::size_t j = 0; j <= m; ++j) {
      if (forward_[j] == kFarther || backward_[m - j] == kFarther) continue;
      if (forward_[j] + backward_[m - j] == *whole) {
        split = j;
        return true;
      }
    }
    return false;  // unreachable: the path of the whole distance crosses the row
  }

  void emit(LineTag tag, std::uint32_t from, std::size_t count) {
    for (std::size_t k = 0; k < count; ++k)
      out_.push_back({tag, from + static_cast<std::uint32_t>(k)});
  }

  std::vector<ScriptLine>& out_;
  // Scratch rows reused by every level: the recursion stays linear in space.
  std::vector<std::uint32_t> forward_, backward_, reversed_a_, reversed_b_;
};

// "[ ] " etc. before each line, written into a buffer sized once for the whole
// script instead of three appends a line.
void append_lines(std::string& out, const std::vector<ScriptLine>& script,
                  const std::vector<std::string_view>& a, const std::vector<std::string_view>& b) {
  auto text_of = [&](const ScriptLine& line) {
    return line.tag == LineTag::added ? b[line.index] : a[line.index];
  };
  std::size_t size = 0;
  for (const ScriptLine& line : script) size += text_of(line).size() + 5;
  const std::size_t start = out.size();
  out.resize(start + size);
  char* at = out.data() + start;
  for (const ScriptLine& line : script) {
    const std::string_view text = text_of(line);
    const char* tag = line.tag == LineTag::same      ? "[ ] "
                      : line.tag == LineTag::removed ? "[-] "
                                                     : "[+] ";
    std::memcpy(at, tag, 4);
    std::memcpy(at + 4, text.data(), text.size());
    at[4 + text.size()] = '\n';
    at += text.size() + 5;
  }
}

// The newlines of `text`, from its split: every line but an unterminated last one
// ends in one.
std::size_t newline_count(std::string_view text, const std::vector<std::string_view>& lines) {
  return lines.size() - (!text.empty() && text.back() != '\n' ? 1 : 0);
}

}  // namespace

std::vector<std::string_view> split_lines(std::string_view text) {
  std::vector<std::string_view> lines;
  std::size_t start = 0;
  while (start < text.size()) {
    const std::size_t end = text.find('\n', start);
    if (end == std::string_view::npos) {
      lines.push_back(text.substr(start));
      break;
    }
    lines.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  return lines;
}

std::vector<ScriptLine> diff_lines(const std::vector<std::string_view>& first,
                                   const std::vector<std::string_view>& second,
                                   DiffMethod* method) {
  std::vector<ScriptLine> script;
  script.reserve(first.size() + second.size());

  std::size_t prefix = 0;
  while (prefix < first.size() && prefix < second.size() && first[prefix] == second[prefix])
    ++prefix;
  std::size_t suffix = 0;
  while (suffix < first.size() - prefix && suffix < second.size() - prefix &&
         first[first.size() - 1 - suffix] == second[second.size() - 1 - suffix])
    ++suffix;

  for (std::size_t i = 0; i < prefix; ++i)
    script.push_back({LineTag::same, static_cast<std::uint32_t>(i)});

  // Intern the middle lines so the LCS compares integers, not strings. A flat table
  // of ids keyed by the lines' hashes: no allocation per line.
  const std::size_t middle = first.size() + second.size() - 2 * (prefix + suffix);
  std::size_t capacity = 16;
  while (capacity < middle * 2) capacity *= 2;
  std::vector<std::uint32_t> slots(capacity, 0);  // id + 1, or 0 when free
  std::vector<std::string_view> texts;            // by id
  std::vector<std::uint64_t> hashes;              // by id
  texts.reserve(middle);
  hashes.reserve(middle);
  auto intern = [&](const std::vector<std::string_view>& lines) {
    std::vector<std::uint32_t> out;
    out.reserve(lines.size() - prefix - suffix);
    for (std::size_t i = prefix; i < lines.size() - suffix; ++i) {
      const std::uint64_t hash = kx::lang::checksum(lines[i]);
      std::size_t at = hash & (capacity - 1);
      for (;; at = (at + 1) & (capacity - 1)) {
        const std::uint32_t slot = slots[at];
        if (slot == 0) {
          slots[at] = static_cast<std::uint32_t>(texts.size()) + 1;
          texts.push_back(lines[i]);
          hashes.push_back(hash);
          out.push_back(static_cast<std::uint32_t>(texts.size()) - 1);
          break;
        }
        if (hashes[slot - 1] == hash && texts[slot - 1] == lines[i]) {
          out.push_back(slot - 1);
          break;
        }
      }
    }
    return out;
  };
  const std::vector<std::uint32_t> a = intern(first);
  const std::vector<std::uint32_t> b = intern(second);
  if (std::uint64_t{a.size()} * b.size() > kOndCells) {
    const OndResult r = ond_diff(a, static_cast<std::uint32_t>(prefix), b,
                                 static_cast<std::uint32_t>(prefix), script, kOndMaxDepth);
    if (method != nullptr) *method = {true, r.approximated};
  } else {
    Aligner(script).align(a, static_cast<std::uint32_t>(prefix), b,
                          static_cast<std::uint32_t>(prefix));
  }

  for (std::size_t i = first.size() - suffix; i < first.size(); ++i)
    script.push_back({LineTag::same, static_cast<std::uint32_t>(i)});
  return script;
}

std::string file_diff(const DiffSide& first, const DiffSide& second, DiffLimits limits) {
  const std::string size1 = std::to_string(first.text.size());
  const std::string size2 = std::to_string(second.text.size());
  if (first.text.find('\0') != std::string_view::npos ||
      second.text.find('\0') != std::string_view::npos)
    return "binary files differ (" + size1 + " vs " + size2 + " bytes)";

  try {
    const std::vector<std::string_view> a = split_lines(first.text);
    const std::vector<std::string_view> b = split_lines(second.text);
    if (limits.memory_budget != 0) {
      // Lines, ids, the script and the scratch rows: a few words per line of either
      // side, plus the rendered answer, which holds both texts at most once more.
      // Counted from the split (a quarter of that per line is spent by now) rather
      // than by another pass over both texts.
      const std::size_t lines = newline_count(first.text, a) + newline_count(second.text, b) + 2;
      const std::size_t need = lines * 64 + first.text.size() + second.text.size();
      if (need > limits.memory_budget) throw std::bad_alloc();
    }
    DiffMethod method;
    const std::vector<ScriptLine> script = diff_lines(a, b, &method);

    std::string out;
    out.reserve(first.text.size() + second.text.size() + script.size() * 5 + 256);
    out += "=== FILE DIFF ===\n";
    out += "FILE1: " + std::string(first.label) + "  (v" + std::to_string(first.version) + ")\n";
    out += "FILE2: " + std::string(second.label) + "  (v" + std::to_string(second.version) + ")\n";
    out += "legend: [ ] same   [-] only in FILE1   [+] only in FILE2\n";
    if (method.approximated)
      out +=
          "note: large files — aligned by the O(ND) method; where the differences ran past "
          "its search bound, lines are shown removed then added (not the shortest script)\n";
    else if (method.ond)
      out +=
          "note: large files — aligned by the O(ND) method (a shortest script; equal runs may "
          "pair differently)\n";
    out += "---\n";
    append_lines(out, script, a, b);
    out += "=== END DIFF ===\n";
    return out;
  } catch (const std::bad_alloc&) {
    return "not enough free memory to diff these files right now (" + size1 + " vs " + size2 +
           " bytes) — close some things to free RAM and try again";
  }
}

}  // namespace kst
