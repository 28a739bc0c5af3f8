#include "vfs/store_view.hpp"

#include <filesystem>

#include "lang/text.hpp"
#include "vfs/file_diff.hpp"
#include "vfs/version_chain.hpp"

namespace kx::vfs {
namespace {

using lang::json_quoted;

View refusal(std::string status, const std::string& error) {
  return {std::move(status), "{\"ok\":false,\"error\":" + json_quoted(error) + "}"};
}

// The store named by its directory, or the active one for "".
kst::Store* pick_store(const kst::StoreSet& stores, const std::string& dir) {
  if (dir.empty()) return stores.active();
  for (kst::Store* store : stores.all())
    if (store->disk_root().string() == dir || store->disk_root().generic_string() == dir)
      return store;
  return nullptr;
}

struct FileRef {
  kst::Store* store = nullptr;
  kst::File* file = nullptr;
  std::optional<View> error;
};

FileRef pick_file(const kst::StoreSet& stores, const std::string& dir, const std::string& path) {
  FileRef ref;
  ref.store = pick_store(stores, dir);
  if (ref.store == nullptr) {
    ref.error =
        refusal("404 Not Found", dir.empty() ? "no store enrolled" : "not enrolled: " + dir);
    return ref;
  }
  if (path.empty()) {
    ref.error = refusal("400 Bad Request", "path required");
    return ref;
  }
  ref.file = ref.store->find_file(path);
  if (ref.file == nullptr) ref.error = refusal("404 Not Found", "no such file: " + path);
  return ref;
}

}  // namespace

View stores_view(const kst::StoreSet& stores) {
  const kst::Store* active = stores.active();
  std::string dirs;
  std::string rows;
  for (const kst::Store* store : stores.all()) {
    std::lock_guard guard(store->mutex());
    if (!dirs.empty()) dirs += ',';
    if (!rows.empty()) rows += ',';
    std::string dir = json_quoted(store->disk_root().string());
    dirs += dir;
    rows += "{\"dir\":" + dir + ",\"policy\":" + json_quoted(kst::policy_text(store->policy())) +
            ",\"versioned\":" + (store->versioned() ? "true" : "false") +
            ",\"files\":" + std::to_string(store->files().size()) +
            ",\"active\":" + (store == active ? "true" : "false") + "}";
  }
  return {"200 OK", "{\"ok\":true,\"dirs\":[" + dirs + "],\"stores\":[" + rows + "]}"};
}

View tree_view(const kst::StoreSet& stores, const std::string& dir) {
  kst::Store* store = pick_store(stores, dir);
  if (store == nullptr)
    return refusal("404 Not Found", dir.empty() ? "no store enrolled" : "not enrolled: " + dir);
  std::lock_guard guard(store->mutex());
  std::string body =
      "{\"ok\":true,\"store\":" + json_quoted(store->disk_root().string()) + ",\"files\":[";
  body.reserve(body.size() + store->files().size() * 64);
  bool first = true;
  for (const auto& [path, file] : store->files()) {
    if (!first) body += ',';
    first = false;
    std::size_t count = kst::version_numbers(*file).size();
    body += "{\"path\":" + json_quoted(path) + ",\"versions\":" + std::to_string(count) +
            ",\"current\":" + std::to_string(file->current) +
            ",\"tombstone\":" + (file->tombstoned ? "true" : "false") + "}";
  }
  return {"200 OK", body + "]}"};
}

View log_view(const kst::StoreSet& stores, const std::string& dir, const std::string& path) {
  FileRef ref = pick_file(stores, dir, path);
  if (ref.error) return *ref.error;
  std::lock_guard guard(ref.store->mutex());
  const std::vector<std::uint32_t> numbers = kst::version_numbers(*ref.file);
  const std::vector<kst::EditRecord> edits = kst::read_edits(ref.store->edit_log_file());
  const auto records = kst::records_by_version(edits, path, numbers.empty() ? 0 : numbers.back());
  std::string body = "{\"ok\":true,\"path\":" + json_quoted(path) +
                     ",\"current\":" + std::to_string(ref.file->current) +
                     ",\"tombstone\":" + (ref.file->tombstoned ? "true" : "false") +
                     ",\"versions\":[";
  bool first = true;
  for (std::uint32_t n : numbers) {
    if (!first) body += ',';
    first = false;
    body += "{\"n\":" + std::to_string(n);
    if (const kst::EditRecord* r = n < records.size() ? records[n] : nullptr)
      body += ",\"ts\":" + std::to_string(r->ts) +
              ",\"time\":" + json_quoted(kst::format_time(r->ts)) +
              ",\"op\":" + json_quoted(r->op) + ",\"who\":" + json_quoted(r->seat);
    body += '}';
  }
  return {"200 OK", body + "]}"};
}

View diff_view(const kst::StoreSet& stores, const std::string& dir, const std::string& path,
               std::uint32_t a, std::uint32_t b, const std::function<void()>& let_go) {
  FileRef ref = pick_file(stores, dir, path);
  if (ref.error) return *ref.error;
  std::optional<std::string> text_a, text_b;
  {
    std::lock_guard guard(ref.store->mutex());
    text_a = kst::read_version(*ref.file, a);
    text_b = kst::read_version(*ref.file, b);
  }
  if (!text_a) return refusal("404 Not Found", "no v" + std::to_string(a) + " of " + path);
  if (!text_b) return refusal("404 Not Found", "no v" + std::to_string(b) + " of " + path);
  if (let_go) let_go();
  const auto lines_a = kst::split_lines(*text_a);
  const auto lines_b = kst::split_lines(*text_b);
  std::string body = "{\"ok\":true,\"path\":" + json_quoted(path) + ",\"a\":" + std::to_string(a) +
                     ",\"b\":" + std::to_string(b) + ",\"rows\":[";
  // Walk both sides in step: a same line advances both, so the other line number
  // of every row is known without a second pass.
  std::uint32_t at_a = 0, at_b = 0;
  bool first = true;
  for (const kst::ScriptLine& line : kst::diff_lines(lines_a, lines_b)) {
    if (!first) body += ',';
    first = false;
    switch (line.tag) {
      case kst::LineTag::same:
        at_a = line.index + 1;
        ++at_b;
        body += "{\"t\":\"same\",\"a\":" + std::to_string(at_a) + ",\"b\":" + std::to_string(at_b) +
                ",\"text\":" + json_quoted(lines_a[line.index]) + "}";
        break;
      case kst::LineTag::removed:
        at_a = line.index + 1;
        body += "{\"t\":\"removed\",\"a\":" + std::to_string(at_a) +
                ",\"text\":" + json_quoted(lines_a[line.index]) + "}";
        break;
      case kst::LineTag::added:
        at_b = line.index + 1;
        body += "{\"t\":\"added\",\"b\":" + std::to_string(at_b) +
                ",\"text\":" + json_quoted(lines_b[line.index]) + "}";
        break;
    }
  }
  return {"200 OK", body + "]}"};
}

View version_view(const kst::StoreSet& stores, const std::string& dir, const std::string& path,
                  std::uint32_t version) {
  FileRef ref = pick_file(stores, dir, path);
  if (ref.error) return *ref.error;
  std::lock_guard guard(ref.store->mutex());
  auto text = kst::read_version(*ref.file, version);
  if (!text) return refusal("404 Not Found", "no v" + std::to_string(version) + " of " + path);
  return {"200 OK", std::move(*text)};
}

View changes_view(const kst::StoreSet& stores) {
  // The edit logs only grow, so their sizes together mark every recorded change,
  // whoever made it (this process, another kx, the watcher).
  std::string stamp;
  for (const kst::Store* store : stores.all()) {
    std::error_code ec;
    auto size = std::filesystem::file_size(store->edit_log_file(), ec);
    stamp += std::to_string(ec ? 0 : size) + '.';
  }
  return {"200 OK", "{\"ok\":true,\"stamp\":" + json_quoted(stamp) + "}"};
}

}  // namespace kx::vfs
