#include "vfs/version_chain.hpp"

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <limits>
#include <mutex>
#include <sstream>

#include "platform/read_file.hpp"

namespace kst {

std::vector<std::uint32_t> version_numbers(const File& file) {
  std::vector<std::uint32_t> out;
  out.reserve(file.archived.size() + file.versions.size() + 1);
  for (const ArchivedVersion& a : file.archived) out.push_back(a.number);
  for (const Version& v : file.versions) out.push_back(v.number);
  if (file.current > 0) out.push_back(file.current);
  std::sort(out.begin(), out.end());
  out.erase(std::unique(out.begin(), out.end()), out.end());
  return out;
}

std::optional<std::string> read_version(const File& file, std::uint32_t number) {
  if (number == 0) return std::nullopt;
  if (const std::string* text = file.text_of(number)) return *text;
  auto it =
      std::lower_bound(file.archived.begin(), file.archived.end(), number,
                       [](const ArchivedVersion& a, std::uint32_t n) { return a.number < n; });
  if (it == file.archived.end() || it->number != number) return std::nullopt;
  std::string text;
  if (!kx::platform::read_whole_file(it->path, text, 0)) return std::nullopt;
  return text;
}

std::vector<const EditRecord*> records_by_version(const std::vector<EditRecord>& edits,
                                                  const std::string& path,
                                                  std::uint32_t max_version) {
  std::vector<const EditRecord*> out(static_cast<std::size_t>(max_version) + 1, nullptr);
  for (const EditRecord& r : edits)
    if (r.path == path && r.new_version > 0 && r.new_version <= max_version)
      out[r.new_version] = &r;
  return out;
}

std::vector<VersionStamp> version_stamps(const std::vector<EditRecord>& edits,
                                         const std::string& path, const File& file) {
  constexpr std::int64_t kAlways = std::numeric_limits<std::int64_t>::min();
  std::vector<VersionStamp> out;
  for (const EditRecord& r : edits) {
    if (r.path != path) continue;
    if (out.empty() && r.prev_version > 0) out.push_back({r.prev_version, kAlways, false});
    if (r.op == "tombstone" || r.op == "rm" || r.op == "delete") {
      out.push_back({0, r.ts, true});
    } else if (r.new_version > 0) {
      out.push_back({r.new_version, r.ts, false});
    }
  }
  if (out.empty() && file.current > 0) out.push_back({file.current, kAlways, false});
  if (file.tombstoned && (out.empty() || !out.back().tombstone))
    out.push_back({0, out.empty() ? kAlways : out.back().at, true});
  return out;
}

namespace {
std::mutex time_mutex;  // std::localtime and std::mktime share static state
}

std::string format_time(std::int64_t seconds) {
  const std::time_t t = static_cast<std::time_t>(seconds);
  std::tm tm{};
  {
    std::lock_guard guard(time_mutex);
    if (const std::tm* local = std::localtime(&t)) tm = *local;
  }
  char buf[80];
  std::snprintf(buf, sizeof buf, "%04d-%02d-%02d %02d:%02d:%02d", tm.tm_year + 1900, tm.tm_mon + 1,
                tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec);
  return buf;
}

std::optional<std::int64_t> parse_time(const std::string& text) {
  if (!text.empty() &&
      std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; }) &&
      text.size() > 8)
    return std::stoll(text);
  std::tm tm{};
  int y = 0, mo = 0, d = 0, h = 0, mi = 0, s = 0;
  char tail = 0;
  int n = std::sscanf(text.c_str(), "%d-%d-%d%*[ T]%d:%d:%d%c", &y, &mo, &d, &h, &mi, &s, &tail);
  if (n == 1 && text.find('-') == std::string::npos) {
    // A time of day alone ("18:00", "18:00:30") is today's.
    n = std::sscanf(text.c_str(), "%d:%d:%d%c", &h, &mi, &s, &tail);
    if (n != 2 && n != 3) return std::nullopt;
    const std::time_t now = std::time(nullptr);
    std::lock_guard guard(time_mutex);
    const std::tm* local = std::localtime(&now);
    if (local == nullptr) return std::nullopt;
    y = local->tm_year + 1900;
    mo = local->tm_mon + 1;
    d = local->tm_mday;
    n = 6;
  }
  if (n != 3 && n != 5 && n != 6) return std::nullopt;
  if (mo < 1 || mo > 12 || d < 1 || d > 31 || h < 0 || h > 23 || mi < 0 || mi > 59 || s < 0 ||
      s > 60)
    return std::nullopt;
  tm.tm_year = y - 1900;
  tm.tm_mon = mo - 1;
  tm.tm_mday = d;
  tm.tm_hour = h;
  tm.tm_min = mi;
  tm.tm_sec = s;
  tm.tm_isdst = -1;
  std::lock_guard guard(time_mutex);
  const std::time_t t = std::mktime(&tm);
  if (t == static_cast<std::time_t>(-1)) return std::nullopt;
  return static_cast<std::int64_t>(t);
}

}  // namespace kst
