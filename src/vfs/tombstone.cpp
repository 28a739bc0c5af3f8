#include "vfs/tombstone.hpp"

#include <chrono>
#include <system_error>

#include "lang/text.hpp"
#include "platform/durable_file.hpp"
#include "vfs/archive.hpp"

namespace kst {

namespace fs = std::filesystem;

fs::path tombstone_marker(const fs::path& mirror) {
  fs::path marker = mirror;
  marker += std::string(kTombstoneSuffix);
  return marker;
}

bool write_replacing(const fs::path& path, const std::string& text) {
  std::error_code ec;
  fs::create_directories(path.parent_path(), ec);
  std::string reason;
  return kx::platform::replace_file_durable(path, text, reason);
}

std::optional<std::string> write_tombstone(Store& store, const std::string& path, const File& file,
                                           const std::string& seat) {
  fs::path mirror = store.mirror_path(path);
  if (mirror.empty()) return std::nullopt;
  std::error_code ec;
  if (!fs::exists(mirror, ec) && !write_replacing(mirror, file.text()))
    return "could not keep the last version before tombstoning " + kx::lang::printable(path);
  auto now = std::chrono::duration_cast<std::chrono::seconds>(
                 std::chrono::system_clock::now().time_since_epoch())
                 .count();
  std::string marker = "tombstoned v" + std::to_string(file.current) + " by " + seat + " at " +
                       std::to_string(now) + "\n";
  if (!write_replacing(tombstone_marker(mirror), marker))
    return "could not write the tombstone of " + kx::lang::printable(path);
  return std::nullopt;
}

}  // namespace kst
