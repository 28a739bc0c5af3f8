#include "vfs/archive.hpp"

#include <algorithm>
#include <charconv>
#include <system_error>

namespace kst {

namespace fs = std::filesystem;

bool is_machinery_name(std::string_view name) {
  for (auto suffix : kMachinerySuffixes)
    if (name.ends_with(suffix)) return true;
  return false;
}

bool is_unmirrored_name(std::string_view name) {
  return name.starts_with("turnlog-");
}

fs::path archive_dir_of(const fs::path& mirror_path) {
  return mirror_path.parent_path() / ("." + mirror_path.filename().string() + ".oldversions");
}

std::vector<ArchivedVersion> list_archived(const fs::path& archive_dir, std::string_view name) {
  std::vector<ArchivedVersion> found;
  std::string prefix = std::string(name) + ".xx";
  std::error_code ec;
  for (fs::directory_iterator it(archive_dir, ec), end; !ec && it != end; it.increment(ec)) {
    std::string entry = it->path().filename().string();
    if (!entry.starts_with(prefix)) continue;
    std::string_view digits = std::string_view(entry).substr(prefix.size());
    std::uint32_t number = 0;
    auto [ptr, err] = std::from_chars(digits.data(), digits.data() + digits.size(), number);
    if (err != std::errc() || ptr != digits.data() + digits.size() || number == 0) continue;
    found.push_back({number, it->path()});
  }
  std::sort(found.begin(), found.end(),
            [](const auto& a, const auto& b) { return a.number < b.number; });
  return found;
}

fs::path first_free_archive_name(const fs::path& archive_dir, std::string_view name,
                                 std::uint32_t& number) {
  // One directory read instead of a probe per number; the answer is the same as trying
  // <name>.xx1, <name>.xx2, ... in order.
  std::string prefix = std::string(name) + ".xx";
  std::vector<std::uint32_t> taken;
  std::error_code ec;
  for (fs::directory_iterator it(archive_dir, ec), end; !ec && it != end; it.increment(ec)) {
    std::string entry = it->path().filename().string();
    if (!entry.starts_with(prefix) || entry.size() == prefix.size() || entry[prefix.size()] == '0')
      continue;
    std::string_view digits = std::string_view(entry).substr(prefix.size());
    std::uint32_t n = 0;
    auto [ptr, err] = std::from_chars(digits.data(), digits.data() + digits.size(), n);
    if (err == std::errc() && ptr == digits.data() + digits.size()) taken.push_back(n);
  }
  std::sort(taken.begin(), taken.end());
  number = 1;
  for (std::uint32_t n : taken) {
    if (n > number) break;
    if (n == number) ++number;
  }
  fs::path candidate = archive_dir / (prefix + std::to_string(number));
  // Something the listing could not see (a race with another program) is stepped over.
  while (fs::exists(fs::symlink_status(candidate, ec)))
    candidate = archive_dir / (prefix + std::to_string(++number));
  return candidate;
}

}  // namespace kst
