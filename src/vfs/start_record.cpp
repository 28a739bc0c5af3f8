#include "vfs/start_record.hpp"

#include <fstream>

#include "platform/durable_file.hpp"

namespace kst {

namespace fs = std::filesystem;

// One entry per line: key, a tab, outcome. Keys are "dir <path>" or "file <path>";
// the configuration files cannot hold a path with a line break either.
StartRecord::StartRecord(fs::path file) : file_(std::move(file)) {
  std::ifstream in(file_);
  std::string line;
  while (std::getline(in, line)) {
    auto tab = line.find('\t');
    if (tab == std::string::npos) continue;
    read_[line.substr(0, tab)] = line.substr(tab + 1);
  }
  now_ = read_;
}

bool StartRecord::note(const std::string& key, const std::string& outcome, bool healthy) {
  noted_.insert(key);
  auto known = read_.find(key);
  now_[key] = outcome;
  if (known == read_.end()) return !healthy;
  return known->second != outcome;
}

std::string StartRecord::previous(const std::string& key) const {
  auto known = read_.find(key);
  return known == read_.end() ? std::string() : known->second;
}

void StartRecord::forget_unnoted(const std::string& prefix) {
  for (auto it = now_.begin(); it != now_.end();) {
    if (it->first.starts_with(prefix) && !noted_.contains(it->first))
      it = now_.erase(it);
    else
      ++it;
  }
}

void StartRecord::set(const std::string& key, const std::string& outcome) {
  if (outcome.empty())
    now_.erase(key);
  else
    now_[key] = outcome;
}

bool StartRecord::save() const {
  if (now_ == read_) return true;
  std::string text;
  for (const auto& [key, outcome] : now_) text += key + "\t" + outcome + "\n";
  std::error_code ec;
  fs::create_directories(file_.parent_path(), ec);
  std::string reason;
  return kx::platform::replace_file_durable(file_, text, reason);
}

fs::path start_record_file(const fs::path& config_dir) {
  return config_dir / "startup.seen";
}

}  // namespace kst
