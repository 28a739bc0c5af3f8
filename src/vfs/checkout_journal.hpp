#pragma once
// The check-out journal: which seat has checked out which file, kept on disk so
// check-outs survive a restart of the program.
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kst {

struct CheckoutRecord {
  std::string leaf_id;  // the checking-out seat
  std::string path;     // the file's store path
  std::int64_t at = 0;  // seconds since the Unix epoch
};

// One journal line, including its line feed.
std::string format_checkout(const CheckoutRecord& record);
// The record of one line, or nothing for a line that is not one (torn or foreign).
std::optional<CheckoutRecord> parse_checkout(std::string_view line);

class CheckoutJournal {
 public:
  explicit CheckoutJournal(std::filesystem::path file) : file_(std::move(file)) {}

  const std::filesystem::path& file() const { return file_; }

  // Appends one record. False when the journal cannot be written.
  bool append(const CheckoutRecord& record) const;

  // The check-outs still open, in journal order; for a path checked out twice the
  // later record wins. A missing journal is empty; unreadable lines are skipped.
  std::vector<CheckoutRecord> replay() const;

  // Replaces the journal with exactly `open` (after a check-in or a transfer), via a
  // temporary file and a rename so a crash leaves the old or the new journal.
  bool rewrite(const std::vector<CheckoutRecord>& open) const;

 private:
  std::filesystem::path file_;
};

}  // namespace kst
