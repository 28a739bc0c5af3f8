#include "server/chat_log.hpp"

#include <deque>
#include <fstream>
#include <mutex>
#include <nlohmann/json.hpp>

#include "lang/text.hpp"

namespace kx::server {
namespace {

// Appends from different connection threads must not interleave within a line.
std::mutex g_append_lock;

}  // namespace

bool append_chat_record(const std::filesystem::path& file, const std::string& record) {
  std::lock_guard guard(g_append_lock);
  std::error_code ec;
  std::filesystem::create_directories(file.parent_path(), ec);
  std::ofstream out(file, std::ios::app | std::ios::binary);
  if (!out) return false;
  out << record << '\n';
  return static_cast<bool>(out.flush());
}

std::vector<std::string> read_chat_tail(const std::filesystem::path& file, std::size_t count) {
  std::ifstream in(file, std::ios::binary);
  std::deque<std::string> lines;
  std::string line;
  while (std::getline(in, line)) {
    if (in.eof()) break;  // no line feed yet: a write in progress or a torn end
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (line.empty() || line.front() != '{') continue;
    // Logs written before chat text was repaired on the way in may hold broken
    // UTF-8; a text frame carrying it would make every standard client hang up.
    lines.push_back(lang::valid_utf8(line));
    if (lines.size() > count) lines.pop_front();
  }
  return {lines.begin(), lines.end()};
}

std::uint64_t record_seq(const std::string& record) {
  auto parsed = nlohmann::json::parse(record, nullptr, false);
  if (!parsed.is_object()) return 0;
  auto it = parsed.find("seq");
  if (it == parsed.end() || !it->is_number_unsigned()) return 0;
  return it->get<std::uint64_t>();
}

bool valid_channel_name(const std::string& name) {
  if (name.empty() || name.size() > 64 || name.front() == '.' || name.front() == '_') return false;
  for (char c : name) {
    bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
              c == '.' || c == '_' || c == '-';
    if (!ok) return false;
  }
  return true;
}

}  // namespace kx::server
