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
  std::string prefix = std::string(name) + ".xx";
  for (number = 1;; ++number) {
    fs::path candidate = archive_dir / (prefix + std::to_string(number));
    std::error_code ec;
    if (!fs::exists(fs::symlink_status(candidate, ec))) return candidate;
  }
}

}  // namespace kst
