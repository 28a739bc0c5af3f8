#include <atomic>
#include <chrono>
#include <random>
#include <system_error>

#include "platform/durable_file.hpp"
#include "platform/file_clone.hpp"

namespace kx::platform {

namespace fs = std::filesystem;

fs::path fresh_temp_path(const fs::path& target) {
  // Random per process plus a counter: unique among threads, and not guessable by a
  // program that wants to plant something at the name first.
  static const std::uint64_t seed = [] {
    std::random_device device;
    return (static_cast<std::uint64_t>(device()) << 32) ^ device();
  }();
  static std::atomic<std::uint64_t> counter{0};
  std::uint64_t value = seed ^ (++counter * 0x9e3779b97f4a7c15ULL);
  static constexpr char kHex[] = "0123456789abcdef";
  std::string name = ".kx";
  for (int shift = 60; shift >= 0; shift -= 4) name += kHex[(value >> shift) & 0xf];
  name += kTempFileSuffix;
  return target.parent_path() / name;
}

bool is_write_temp_name(std::string_view name) {
  if (!name.starts_with(".kx") || !name.ends_with(kTempFileSuffix)) return false;
  std::string_view digits = name.substr(3, name.size() - 3 - kTempFileSuffix.size());
  if (digits.size() != 16) return false;
  for (char c : digits)
    if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'))) return false;
  return true;
}

void remove_if_stale_temp(const fs::path& path) {
  if (!is_write_temp_name(path.filename().string())) return;
  std::error_code ec;
  const auto written = fs::last_write_time(path, ec);
  if (ec || fs::file_time_type::clock::now() - written < std::chrono::hours(1)) return;
  fs::remove(path, ec);
}

StagedFile::StagedFile(fs::path target, fs::path temp)
    : target_(std::move(target)), temp_(std::move(temp)) {}

StagedFile::StagedFile(StagedFile&& other) noexcept
    : target_(std::move(other.target_)), temp_(std::move(other.temp_)) {
  other.temp_.clear();
}

StagedFile& StagedFile::operator=(StagedFile&& other) noexcept {
  if (this != &other) {
    discard();
    target_ = std::move(other.target_);
    temp_ = std::move(other.temp_);
    other.temp_.clear();
  }
  return *this;
}

StagedFile::~StagedFile() {
  discard();
}

void StagedFile::discard() {
  if (temp_.empty()) return;
  std::error_code ec;
  fs::remove(temp_, ec);
  temp_.clear();
}

std::optional<StagedFile> StagedFile::stage(const fs::path& target, std::string_view data,
                                            std::string& reason) {
  const std::string_view parts[] = {data};
  return stage(target, parts, reason);
}

namespace {

// Finds a fresh temporary name beside `target` and lets `fill` create it; on failure
// the partial file is removed. A name taken by somebody else (vanishingly rare) is
// stepped over, never reused.
template <typename Fill>
std::optional<fs::path> make_temp(const fs::path& target, std::string& reason, Fill fill) {
  for (int attempt = 0; attempt < 8; ++attempt) {
    fs::path temp = fresh_temp_path(target);
    std::error_code ec;
    if (fs::exists(fs::symlink_status(temp, ec))) continue;
    if (!fill(temp)) {
      fs::remove(temp, ec);
      return std::nullopt;
    }
    return temp;
  }
  reason = "no free temporary name";
  return std::nullopt;
}

}  // namespace

std::optional<StagedFile> StagedFile::stage(const fs::path& target,
                                            std::span<const std::string_view> parts,
                                            std::string& reason) {
  auto temp = make_temp(
      target, reason, [&](const fs::path& t) { return write_new_file_durable(t, parts, reason); });
  if (!temp) return std::nullopt;
  return StagedFile(target, std::move(*temp));
}

std::optional<StagedFile> StagedFile::stage_copy(const fs::path& target, const fs::path& source,
                                                 std::string& reason) {
  auto temp = make_temp(target, reason, [&](const fs::path& t) {
    if (!clone_file(source, t, reason)) return false;
    if (sync_file(t)) return true;
    reason = "could not sync " + t.string();
    return false;
  });
  if (!temp) return std::nullopt;
  return StagedFile(target, std::move(*temp));
}

bool StagedFile::commit(std::string& reason) {
  if (temp_.empty()) {
    reason = "nothing staged";
    return false;
  }
  if (!replace_durable(temp_, target_, reason)) return false;
  temp_.clear();
  return true;
}

bool replace_file_durable(const fs::path& target, std::string_view data, std::string& reason) {
  auto staged = StagedFile::stage(target, data, reason);
  return staged && staged->commit(reason);
}

}  // namespace kx::platform
