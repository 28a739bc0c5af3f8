// checkouts.jsonl: JSON Lines, one check-out per line, appended as check-outs happen
// and rewritten whole when one ends. Each line is a compact object with the keys in
// this order and a final line feed:
//
//   {"leafId":"<seat>","path":"<store path>","at":<seconds since the epoch>}
//
// Strings are JSON-escaped ("\"", "\\", control characters as \n, \r, \t or \u00XX).
// Records are appended with one write and an fsync; a rewrite goes to a temporary
// file first and is renamed over the journal. Readers skip lines that do not parse,
// so a torn last line loses only itself.
#include "vfs/checkout_journal.hpp"

#include <cstdio>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <system_error>

#include "lang/text.hpp"
#include "platform/durable_file.hpp"

namespace kst {
namespace {}  // namespace

std::string format_checkout(const CheckoutRecord& record) {
  std::string line = "{\"leafId\":";
  line += kx::lang::json_quoted(record.leaf_id);
  line += ",\"path\":";
  line += kx::lang::json_quoted(record.path);
  line += ",\"at\":" + std::to_string(record.at) + "}\n";
  return line;
}

std::optional<CheckoutRecord> parse_checkout(std::string_view line) {
  const nlohmann::json j = nlohmann::json::parse(line, nullptr, /*allow_exceptions=*/false);
  if (!j.is_object()) return std::nullopt;
  auto leaf = j.find("leafId");
  auto path = j.find("path");
  auto at = j.find("at");
  if (leaf == j.end() || path == j.end() || at == j.end() || !leaf->is_string() ||
      !path->is_string() || !at->is_number_integer())
    return std::nullopt;
  return CheckoutRecord{leaf->get<std::string>(), path->get<std::string>(),
                        at->get<std::int64_t>()};
}

bool CheckoutJournal::append(const CheckoutRecord& record) const {
  std::error_code ec;
  std::filesystem::create_directories(file_.parent_path(), ec);
  std::string reason;
  return kx::platform::append_file_durable(file_, format_checkout(record), reason);
}

std::vector<CheckoutRecord> CheckoutJournal::replay() const {
  std::vector<CheckoutRecord> open;
  std::ifstream in(file_, std::ios::binary);
  std::string line;
  while (std::getline(in, line)) {
    auto record = parse_checkout(line);
    if (!record) continue;
    std::erase_if(open, [&](const CheckoutRecord& r) { return r.path == record->path; });
    open.push_back(std::move(*record));
  }
  return open;
}

bool CheckoutJournal::rewrite(const std::vector<CheckoutRecord>& open) const {
  std::error_code ec;
  std::filesystem::create_directories(file_.parent_path(), ec);
  std::string text;
  for (const CheckoutRecord& record : open) text += format_checkout(record);
  std::string reason;
  return kx::platform::replace_file_durable(file_, text, reason);
}

}  // namespace kst
