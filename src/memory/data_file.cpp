#include "memory/data_file.hpp"

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

// Writes `parts` to `target` through "<target>.tmp": write, sync, rename.
std::string write_durably(const fs::path& target, std::string_view first, std::string_view second) {
  fs::path temp = target;
  temp += ".tmp";
  {
    std::ofstream out(temp, std::ios::binary | std::ios::trunc);
    if (!out) return write_failure(temp);
    out.write(first.data(), static_cast<std::streamsize>(first.size()));
    out.write(second.data(), static_cast<std::streamsize>(second.size()));
    out.flush();
    if (!out) return write_failure(temp);
  }
  if (!platform::sync_file(temp)) return write_failure(temp);
  std::error_code ec;
  fs::rename(temp, target, ec);
  if (ec) return write_failure(target) + ": " + ec.message();
  platform::sync_directory(target.parent_path().empty() ? fs::path(".") : target.parent_path());
  return {};
}

}  // namespace

fs::path crash_net_path(const fs::path& data_path) {
  fs::path last = data_path;
  last += ".last";
  return last;
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

std::string append_data_file(const fs::path& path, std::string_view record_bytes) {
  std::error_code ec;
  const auto size = fs::file_size(path, ec);
  const bool needs_magic = ec || size == 0;
  std::ofstream out(path, std::ios::binary | std::ios::app);
  if (!out) return write_failure(path);
  if (needs_magic) out.write(kMagic.data(), kMagic.size());
  out.write(record_bytes.data(), static_cast<std::streamsize>(record_bytes.size()));
  out.flush();
  return out ? std::string() : write_failure(path);
}

std::string rewrite_data_file(const fs::path& path, std::string_view heap) {
  std::string previous;
  if (read_whole_file(path, previous)) {
    if (std::string error = write_durably(crash_net_path(path), previous, {}); !error.empty())
      return error;
  }
  return write_durably(path, kMagic, heap);
}

bool load_data_file(ContextStore& store) {
  if (store.data_path().empty()) return false;
  std::ifstream in(store.data_path(), std::ios::binary | std::ios::ate);
  if (!in) return false;
  const std::streamoff size = in.tellg();
  if (size < 0) return false;
  in.seekg(0);
  char magic[4] = {};
  if (size >= static_cast<std::streamoff>(kMagic.size()) && in.read(magic, sizeof magic) &&
      std::string_view(magic, sizeof magic) == kMagic) {
    // The common case: read the records straight into the heap.
    const auto heap_size = static_cast<std::uint64_t>(size) - kMagic.size();
    bool read = false;
    store.load_heap(heap_size, [&](char* heap) {
      read = static_cast<bool>(in.read(heap, static_cast<std::streamsize>(heap_size)));
      return read;
    });
    return read;
  }
  // Converting an old file renames over it, which Windows refuses while it is open.
  in.close();
  std::string bytes;
  if (!read_whole_file(store.data_path(), bytes)) return false;
  load_from_bytes(store, bytes);
  return true;
}

void load_from_bytes(ContextStore& store, std::string_view view) {
  store.reset();
  if (view.size() >= kMagic.size() && view.starts_with(kMagic)) {
    store.load_heap(view.substr(kMagic.size()));
    return;
  }

  // Old format: re-add every record with the file detached, then save once.
  const fs::path path = store.data_path();
  store.set_data_path({});
  if (view.size() >= 12) {
    RecordView record;
    std::size_t offset = 0;
    while (offset < view.size() && parse_old_record(view.substr(offset), record)) {
      std::vector<std::string> keywords(record.keywords.begin(), record.keywords.end());
      store.append_record(record.content, keywords, record.topic, 0, {});
      offset += record.size;
    }
  }
  store.set_data_path(path);
  if (!view.empty() && !path.empty()) store.save();
}

}  // namespace kx::memory
