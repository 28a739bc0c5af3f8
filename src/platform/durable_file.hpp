#pragma once
// Writes that survive a crash of the process or the machine: the data is on the
// disk (fsync) before the call returns success.
#include <cstdint>
#include <filesystem>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace kx::platform {

// Creates or truncates `path`, writes `data` and fsyncs it. On failure returns false,
// sets `reason`, and the file may hold part of the data (callers write to a
// temporary name and rename).
bool write_file_durable(const std::filesystem::path& path, std::string_view data,
                        std::string& reason);

// Creates `path`, which must not exist yet, writes `data` and fsyncs it. A link or
// any other entry already at that name makes it fail: it never writes through one.
[[nodiscard]] bool write_new_file_durable(const std::filesystem::path& path, std::string_view data,
                                          std::string& reason);
// The same with the data given in parts, written one after the other: a large file
// and its header need not be joined in memory first.
[[nodiscard]] bool write_new_file_durable(const std::filesystem::path& path,
                                          std::span<const std::string_view> parts,
                                          std::string& reason);

// Renames `from` over `to` (replacing a file there, or the link itself when `to` is a
// link) and syncs `to`'s directory. Where the system refuses to replace a file that
// another handle holds open (Windows), it retries for up to a second: readers hold
// files only for the length of one read.
[[nodiscard]] bool replace_durable(const std::filesystem::path& from,
                                   const std::filesystem::path& to, std::string& reason);

// The longest full path this system's file calls accept, in bytes of its UTF-8 form
// (a conservative count where the system counts UTF-16 units).
std::size_t max_path_bytes();

// Every temporary file of a write ends in this, so that listings and the watcher know
// it as machinery.
inline constexpr std::string_view kTempFileSuffix = ".tmp$";

// A fresh, short temporary name in `target`'s directory: ".kx<16 hex digits>.tmp$".
// Its length does not depend on the target's, so the longest name a file system holds
// can still be saved.
std::filesystem::path fresh_temp_path(const std::filesystem::path& target);

// Whether `name` is one of fresh_temp_path's names: a crash may leave one behind.
bool is_write_temp_name(std::string_view name);

// Removes `path` when it is one of those names and was last written an hour ago or
// more: a crash left it behind, and no write is still filling it. The caller passes
// regular files only (never a link), so nothing a user put there is removed.
void remove_if_stale_temp(const std::filesystem::path& path);

// New bytes for `target`, written and synced under a fresh temporary name, put in
// place by commit(). Destroyed without a commit, it removes its temporary file, so a
// step that fails later leaves nothing behind and the target untouched.
class StagedFile {
 public:
  [[nodiscard]] static std::optional<StagedFile> stage(const std::filesystem::path& target,
                                                       std::string_view data, std::string& reason);
  [[nodiscard]] static std::optional<StagedFile> stage(const std::filesystem::path& target,
                                                       std::span<const std::string_view> parts,
                                                       std::string& reason);
  // A synced copy of the existing file `source` (a block-sharing clone where the file
  // system has them), to be put in place at `target`.
  [[nodiscard]] static std::optional<StagedFile> stage_copy(const std::filesystem::path& target,
                                                            const std::filesystem::path& source,
                                                            std::string& reason);
  StagedFile(StagedFile&& other) noexcept;
  StagedFile& operator=(StagedFile&& other) noexcept;
  StagedFile(const StagedFile&) = delete;
  ~StagedFile();

  [[nodiscard]] bool commit(std::string& reason);
  const std::filesystem::path& target() const { return target_; }

 private:
  StagedFile(std::filesystem::path target, std::filesystem::path temp);
  void discard();
  std::filesystem::path target_;
  std::filesystem::path temp_;  // empty once committed or moved from
};

// Replaces `target` with `data` atomically and durably: stage, then commit. The one
// routine for whole-file writes; the target is either its old bytes or the new ones.
[[nodiscard]] bool replace_file_durable(const std::filesystem::path& target, std::string_view data,
                                        std::string& reason);

// Appends `data` to `path` (created when missing) with one write and fsyncs it.
bool append_file_durable(const std::filesystem::path& path, std::string_view data,
                         std::string& reason);

// Flushes an existing file's data to the device. False when it cannot be opened or synced.
bool sync_file(const std::filesystem::path& file);

// Flushes a directory's entries after a rename into it (a no-op where the file
// system has no such step). False on failure.
bool sync_directory(const std::filesystem::path& dir);

// An exclusive advisory lock on a file, held until the object is destroyed. It keeps
// two processes from interleaving the steps of one save; the kernel drops it when the
// holder dies.
// The counter's bytes in the lock file: little-endian, the same on every platform.
inline void encode_counter(std::uint64_t value, unsigned char (&bytes)[8]) {
  for (unsigned char& b : bytes) {
    b = static_cast<unsigned char>(value & 0xff);
    value >>= 8;
  }
}
inline std::uint64_t decode_counter(const unsigned char (&bytes)[8]) {
  std::uint64_t value = 0;
  for (int i = 7; i >= 0; --i) value = (value << 8) | bytes[i];
  return value;
}

class FileLock {
 public:
  explicit FileLock(const std::filesystem::path& path);  // blocks until held
  ~FileLock();
  FileLock(const FileLock&) = delete;
  FileLock& operator=(const FileLock&) = delete;
  bool held() const { return handle_ != -1; }
  // A counter kept in the lock file's first eight bytes, for the holder to read and
  // bump: it tells other processes that the guarded files changed in a way their
  // sizes do not show. 0 for a fresh lock file.
  std::uint64_t read_counter() const;
  [[nodiscard]] bool write_counter(std::uint64_t value);

 private:
  std::intptr_t handle_ = -1;  // a descriptor or a HANDLE
};

}  // namespace kx::platform
