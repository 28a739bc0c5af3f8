#include "memory/data_file.hpp"

#include <chrono>
#include <cstdio>
#include <fstream>
#include <system_error>

#include "memory/context_store.hpp"
#include "platform/durable_file.hpp"

namespace kx::memory {
namespace {

namespace fs = std::filesystem;

std::string write_failure(const fs::path& path) {
  return "could not write " + path.string();
}

fs::path with_suffix(const fs::path& path, std::string_view suffix) {
  fs::path out = path;
  out += std::string(suffix);
  return out;
}

fs::path parent_or_here(const fs::path& path) {
  return path.parent_path().empty() ? fs::path(".") : path.parent_path();
}

// Moves a synced temporary file over `target` and makes the rename durable.
std::string promote(const fs::path& temp, const fs::path& target) {
  if (!platform::sync_file(temp)) return write_failure(temp);
  std::error_code ec;
  fs::rename(temp, target, ec);
  if (ec) return write_failure(target) + ": " + ec.message();
  if (!platform::sync_directory(parent_or_here(target))) return write_failure(target);
  return {};
}

// Writes `first` then `second` to `target` through "<target>.tmp": write, sync, rename.
std::string write_durably(const fs::path& target, std::string_view first, std::string_view second) {
  const fs::path temp = with_suffix(target, ".tmp");
  {
    std::ofstream out(temp, std::ios::binary | std::ios::trunc);
    if (!out) return write_failure(temp);
    out.write(first.data(), static_cast<std::streamsize>(first.size()));
    out.write(second.data(), static_cast<std::streamsize>(second.size()));
    out.flush();
    if (!out) {
      out.close();
      std::error_code ec;
      fs::remove(temp, ec);  // a full disk gets its space back
      return write_failure(temp);
    }
  }
  return promote(temp, target);
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

bool read_whole_file(const fs::path& path, std::string& out) {
  std::ifstream in(path, std::ios::binary | std::ios::ate);
  if (!in) return false;
  const std::streamoff size = in.tellg();
  if (size < 0) return false;
  out.resize(static_cast<std::size_t>(size));
  in.seekg(0);
  in.read(out.data(), size);
  return static_cast<bool>(in) || size == 0;
}

std::string copy_durably(const fs::path& from, const fs::path& to) {
  const fs::path temp = with_suffix(to, ".tmp");
  std::error_code ec;
  fs::copy_file(from, temp, fs::copy_options::overwrite_existing, ec);
  if (ec) {
    std::error_code ignored;
    fs::remove(temp, ignored);
    return "could not copy " + from.string() + " to " + temp.string() + ": " + ec.message();
  }
  return promote(temp, to);
}

std::string rewrite_data_file(const fs::path& path, std::string_view heap) {
  std::error_code ec;
  if (fs::exists(path, ec)) {
    if (std::string error = copy_durably(path, crash_net_path(path)); !error.empty()) return error;
  }
  return write_durably(path, kMagic, heap);
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
  for (int n = 2; fs::exists(candidate, ec) || fs::exists(with_suffix(candidate, ".tmp"), ec); ++n)
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
