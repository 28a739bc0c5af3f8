#include "memory/data_file.hpp"

#include <chrono>
#include <cstdio>
#include <system_error>

#include "memory/context_store.hpp"
#include "platform/durable_file.hpp"

namespace kx::memory {
namespace {

namespace fs = std::filesystem;

fs::path with_suffix(const fs::path& path, std::string_view suffix) {
  fs::path out = path;
  out += std::string(suffix);
  return out;
}

std::size_t count_current_records(std::string_view body, bool& whole) {
  RecordView record;
  std::size_t offset = 0, count = 0;
  while (offset < body.size() && parse_record(body.substr(offset), record)) {
    offset += record.size;
    ++count;
  }
  whole = offset == body.size();
  return count;
}

}  // namespace

fs::path crash_net_path(const fs::path& data_path) {
  return with_suffix(data_path, ".last");
}

std::string copy_durably(const fs::path& from, const fs::path& to) {
  std::string reason;
  auto staged = platform::StagedFile::stage_copy(to, from, reason);
  if (!staged || !staged->commit(reason))
    return "could not copy " + from.string() + " to " + to.string() + ": " + reason;
  return {};
}

std::string rewrite_data_file(const fs::path& path, std::string_view heap) {
  std::error_code ec;
  if (fs::exists(path, ec)) {
    if (std::string error = copy_durably(path, crash_net_path(path)); !error.empty()) return error;
  }
  // The heap is written behind the magic as it stands: no joined copy of a large file.
  const std::string_view parts[] = {kMagic, heap};
  std::string reason;
  auto staged = platform::StagedFile::stage(path, parts, reason);
  if (!staged || !staged->commit(reason)) return "could not write " + path.string() + ": " + reason;
  return {};
}

fs::path free_damaged_path(const fs::path& data_path) {
  using namespace std::chrono;
  const auto now = system_clock::now();
  const auto day = floor<days>(now);
  const year_month_day date{day};
  const hh_mm_ss time{floor<seconds>(now - day)};
  char stamp[32];
  std::snprintf(stamp, sizeof stamp, "%04d%02u%02uT%02d%02d%02dZ", static_cast<int>(date.year()),
                static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
                static_cast<int>(time.hours().count()), static_cast<int>(time.minutes().count()),
                static_cast<int>(time.seconds().count()));
  const fs::path base = with_suffix(data_path, std::string(".damaged-") + stamp);
  fs::path candidate = base;
  std::error_code ec;
  for (int n = 2; fs::exists(candidate, ec); ++n)
    candidate = with_suffix(base, "-" + std::to_string(n));
  return candidate;
}

Layout guess_layout(std::string_view bytes) {
  bool old_whole = false, current_whole = false;
  RecordView record;
  std::size_t offset = 0, old_count = 0;
  while (offset < bytes.size() && parse_old_record(bytes.substr(offset), record)) {
    offset += record.size;
    ++old_count;
  }
  old_whole = offset == bytes.size() && !bytes.empty();
  if (old_whole || bytes.size() < kMagic.size()) return Layout::old_format;
  const std::size_t current = count_current_records(bytes.substr(kMagic.size()), current_whole);
  return current_whole || current > old_count ? Layout::damaged_magic : Layout::old_format;
}

std::size_t convert_old_records(ContextStore& store, std::string_view bytes, bool& whole) {
  RecordView record;
  std::size_t offset = 0, count = 0;
  // Fewer than 12 bytes cannot hold a record.
  while (bytes.size() >= 12 && offset < bytes.size() &&
         parse_old_record(bytes.substr(offset), record)) {
    std::vector<std::string> keywords(record.keywords.begin(), record.keywords.end());
    store.append_record(record.content, keywords, record.topic, 0, {});
    offset += record.size;
    ++count;
  }
  whole = offset == bytes.size();
  return count;
}

void load_from_bytes(ContextStore& store, std::string_view bytes) {
  store.reset();
  if (bytes.starts_with(kMagic)) {
    store.load_heap(bytes.substr(kMagic.size()));
  } else if (!bytes.empty() && guess_layout(bytes) == Layout::damaged_magic) {
    store.load_heap(bytes.substr(kMagic.size()));
  } else {
    bool whole = false;
    convert_old_records(store, bytes, whole);
  }
}

bool load_data_file(ContextStore& store) {
  if (store.data_path().empty()) return false;
  std::error_code ec;
  if (!fs::exists(store.data_path(), ec)) {
    (void)store.refresh();  // an empty context all the same
    return false;
  }
  return store.refresh().empty();
}

}  // namespace kx::memory
