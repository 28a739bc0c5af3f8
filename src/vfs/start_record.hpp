#pragma once
// What the last start of the program found for each listed directory and watched
// file. A start compares its own findings with it and reports only what changed:
// nothing at all when every entry is as before.
#include <filesystem>
#include <map>
#include <set>
#include <string>

namespace kst {

class StartRecord {
 public:
  // Reads `file`; a missing or unreadable file is an empty record.
  explicit StartRecord(std::filesystem::path file);

  // Records `outcome` for `key` and says whether it is news: an outcome other than
  // the recorded one, or a first sight of an entry that is not `healthy` (an entry
  // that simply works needs no word, e.g. just after the verb that listed it).
  bool note(const std::string& key, const std::string& outcome, bool healthy);
  // The outcome recorded before this process noted anything; empty when none.
  std::string previous(const std::string& key) const;
  // Drops the entries under `prefix` that were not noted since this record was read:
  // they left their list.
  void forget_unnoted(const std::string& prefix);
  // Sets or (with an empty outcome) removes one entry without reporting.
  void set(const std::string& key, const std::string& outcome);

  // Writes the record when it differs from the file; false when that failed (the
  // cost is one repeated report line at the next start).
  bool save() const;

 private:
  std::filesystem::path file_;
  std::map<std::string, std::string> read_;
  std::map<std::string, std::string> now_;
  std::set<std::string> noted_;
};

// The record of the home whose configuration folder is `config_dir`.
std::filesystem::path start_record_file(const std::filesystem::path& config_dir);

}  // namespace kst
