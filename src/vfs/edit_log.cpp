// The edit log of a store, "<mirror root>/.oldversions/edits.jsonl".
//
// Format: JSON Lines, UTF-8, appended and never rewritten. One record per line,
// keys always in this order, no blanks:
//   {"ts":1763884800,"path":"src/a.txt","op":"modify","seat":"cli","new":3,"prev":2,"store":"/home/me/proj"}
// "ts" is seconds since the Unix epoch; "new" and "prev" are version numbers (0 when
// there is none). "op" is one of: create (v1), modify, copy (fs:copy into the
// file), tombstone, restore, move (at the new path), move-away (at the old path);
// other layers add their own (revert, ...). Each record is written with one append
// and an fsync, so a crash can only leave a last line without its newline; readers
// skip such a line.
#include "vfs/edit_log.hpp"

#include <chrono>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <optional>
#include <sstream>

#include "lang/text.hpp"
#include "platform/durable_file.hpp"

namespace kst {
namespace {

// Reads the JSON string starting at `pos` (at the opening quote); advances `pos`.
bool read_json_string(std::string_view line, std::size_t& pos, std::string& out) {
  if (pos >= line.size() || line[pos] != '"') return false;
  ++pos;
  out.clear();
  while (pos < line.size()) {
    char c = line[pos++];
    if (c == '"') return true;
    if (c != '\\') {
      out += c;
      continue;
    }
    if (pos >= line.size()) return false;
    char e = line[pos++];
    switch (e) {
      case 'n':
        out += '\n';
        break;
      case 'r':
        out += '\r';
        break;
      case 't':
        out += '\t';
        break;
      case 'u': {
        if (pos + 4 > line.size()) return false;
        out += static_cast<char>(std::stoi(std::string(line.substr(pos, 4)), nullptr, 16));
        pos += 4;
        break;
      }
      default:
        out += e;
    }
  }
  return false;
}

bool read_number(std::string_view line, std::size_t& pos, std::int64_t& out) {
  std::size_t start = pos;
  if (pos < line.size() && line[pos] == '-') ++pos;
  while (pos < line.size() && line[pos] >= '0' && line[pos] <= '9') ++pos;
  if (pos == start) return false;
  out = std::stoll(std::string(line.substr(start, pos - start)));
  return true;
}

bool expect(std::string_view line, std::size_t& pos, std::string_view text) {
  if (line.substr(pos, text.size()) != text) return false;
  pos += text.size();
  return true;
}

std::optional<EditRecord> parse_record(std::string_view line) {
  EditRecord r;
  std::size_t pos = 0;
  std::int64_t n = 0;
  if (!expect(line, pos, "{\"ts\":") || !read_number(line, pos, r.ts)) return std::nullopt;
  if (!expect(line, pos, ",\"path\":") || !read_json_string(line, pos, r.path)) return std::nullopt;
  if (!expect(line, pos, ",\"op\":") || !read_json_string(line, pos, r.op)) return std::nullopt;
  if (!expect(line, pos, ",\"seat\":") || !read_json_string(line, pos, r.seat)) return std::nullopt;
  if (!expect(line, pos, ",\"new\":") || !read_number(line, pos, n)) return std::nullopt;
  r.new_version = static_cast<std::uint32_t>(n);
  if (!expect(line, pos, ",\"prev\":") || !read_number(line, pos, n)) return std::nullopt;
  r.prev_version = static_cast<std::uint32_t>(n);
  if (!expect(line, pos, ",\"store\":") || !read_json_string(line, pos, r.store))
    return std::nullopt;
  if (!expect(line, pos, "}")) return std::nullopt;
  return r;
}

}  // namespace

std::string edit_record_json(const EditRecord& r) {
  std::string out = "{\"ts\":" + std::to_string(r.ts) + ",\"path\":";
  out += kx::lang::json_quoted(r.path);
  out += ",\"op\":";
  out += kx::lang::json_quoted(r.op);
  out += ",\"seat\":";
  out += kx::lang::json_quoted(r.seat);
  out += ",\"new\":" + std::to_string(r.new_version) +
         ",\"prev\":" + std::to_string(r.prev_version) + ",\"store\":";
  out += kx::lang::json_quoted(r.store);
  out += '}';
  return out;
}

bool append_edit(const std::filesystem::path& log_file, const EditRecord& record,
                 std::string& reason) {
  return kx::platform::append_file_durable(log_file, edit_record_json(record) + "\n", reason);
}

bool append_edit_now(const std::filesystem::path& log_file, EditRecord record,
                     std::string& reason) {
  record.ts = std::chrono::duration_cast<std::chrono::seconds>(
                  std::chrono::system_clock::now().time_since_epoch())
                  .count();
  std::error_code ec;
  std::filesystem::create_directories(log_file.parent_path(), ec);
  return append_edit(log_file, record, reason);
}

std::vector<EditRecord> read_edits_after(const std::filesystem::path& log_file,
                                         std::uint64_t& offset) {
  std::vector<EditRecord> records;
  std::ifstream in(log_file, std::ios::binary);
  if (!in) return records;
  in.seekg(0, std::ios::end);
  auto size = static_cast<std::uint64_t>(std::max<std::streamoff>(in.tellg(), 0));
  if (size < offset) offset = 0;  // the log was replaced: read it again from the start
  if (size == offset) return records;
  std::string all(size - offset, '\0');
  in.seekg(static_cast<std::streamoff>(offset));
  in.read(all.data(), static_cast<std::streamsize>(all.size()));
  all.resize(static_cast<std::size_t>(std::max<std::streamsize>(in.gcount(), 0)));
  std::size_t start = 0;
  while (start < all.size()) {
    std::size_t end = all.find('\n', start);
    if (end == std::string::npos) break;  // torn or still being written
    if (auto r = parse_record(std::string_view(all).substr(start, end - start)))
      records.push_back(std::move(*r));
    start = end + 1;
  }
  offset += start;
  return records;
}

std::vector<EditRecord> read_edits(const std::filesystem::path& log_file) {
  std::uint64_t offset = 0;
  return read_edits_after(log_file, offset);
}

}  // namespace kst
