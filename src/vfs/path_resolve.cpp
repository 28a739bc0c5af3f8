#include "vfs/path_resolve.hpp"

#include <cstdio>
#include <system_error>
#include <vector>

#include "lang/text.hpp"

namespace kst {

namespace fs = std::filesystem;

namespace {

// Bytes refused in names on either platform: control characters, the characters
// Windows reserves, and malformed UTF-8.
std::optional<unsigned char> bad_byte(std::string_view s) {
  for (std::size_t i = 0; i < s.size(); ++i) {
    unsigned char c = static_cast<unsigned char>(s[i]);
    if (c < 0x20 || c == 0x7f || c == '<' || c == '>' || c == '"' || c == '|' || c == '?' ||
        c == '*')
      return c;
    if (c == ':' && !(i == 1 && s.size() > 2)) return c;
    if (c < 0x80) continue;
    int extra = (c & 0xe0) == 0xc0 ? 1 : (c & 0xf0) == 0xe0 ? 2 : (c & 0xf8) == 0xf0 ? 3 : -1;
    if (extra < 0 || i + static_cast<std::size_t>(extra) >= s.size()) return c;
    for (int k = 1; k <= extra; ++k)
      if ((static_cast<unsigned char>(s[i + k]) & 0xc0) != 0x80) return c;
    i += static_cast<std::size_t>(extra);
  }
  return std::nullopt;
}

bool inside(const fs::path& root, const fs::path& path) {
  auto rel = path.lexically_relative(root);
  return !rel.empty() && *rel.begin() != "..";
}

}  // namespace

std::optional<std::string> store_path_of(const Store& store, std::string_view arg,
                                         std::string& error) {
  if (auto c = bad_byte(arg)) {
    char hex[8];
    std::snprintf(hex, sizeof hex, "0x%02x", *c);
    error = "invalid path '" + kx::lang::printable(arg) + "': byte " + hex +
            " is not allowed in a name";
    return std::nullopt;
  }
  std::string text(arg);
  for (char& c : text)
    if (c == '\\') c = '/';
  if (text.empty()) {
    error = "empty path";
    return std::nullopt;
  }
  fs::path given(text);
  const fs::path& root = store.disk_root();
  fs::path full = (given.is_absolute() ? given : root / given).lexically_normal();
  if (full == root || full == root / "") return std::string();
  if (!inside(root, full)) {
    error = "path '" + std::string(arg) + "' is outside the store " + root.string();
    return std::nullopt;
  }
  // A symbolic link on the way may lead anywhere; the real location must stay inside.
  std::error_code ec;
  fs::path real_root = fs::weakly_canonical(root, ec);
  fs::path real = fs::weakly_canonical(full, ec);
  if (!ec && !real_root.empty() && real != real_root && !inside(real_root, real)) {
    error = "path '" + std::string(arg) + "' leads outside the store through a symbolic link";
    return std::nullopt;
  }
  std::string rel = full.lexically_relative(root).generic_string();
  while (rel.ends_with("/")) rel.pop_back();
  return rel;
}

std::optional<fs::path> link_out_of_store(const Store& store, const fs::path& disk) {
  std::error_code ec;
  const fs::path real_root = fs::weakly_canonical(store.disk_root(), ec);
  auto escapes = [&](const fs::path& link) {
    std::error_code lec;
    fs::path target = fs::read_symlink(link, lec);
    if (lec) return true;
    if (target.is_relative()) target = link.parent_path() / target;
    fs::path real = fs::weakly_canonical(target, lec);
    return lec || (real != real_root && !inside(real_root, real));
  };
  if (fs::is_symlink(fs::symlink_status(disk, ec))) {
    if (escapes(disk)) return disk;
    return std::nullopt;
  }
  if (!fs::is_directory(fs::symlink_status(disk, ec))) return std::nullopt;
  fs::recursive_directory_iterator it(disk, fs::directory_options::skip_permission_denied, ec);
  for (fs::recursive_directory_iterator end; !ec && it != end; it.increment(ec)) {
    std::error_code sec;
    if (it->is_symlink(sec) && escapes(it->path())) return it->path();
  }
  return std::nullopt;
}

Resolved resolve_node(const Store& store, std::string_view arg) {
  Resolved r;
  auto path = store_path_of(store, arg, r.error);
  if (!path) return r;
  if (store.find_node(*path) != nullptr) {
    r.path = *path;
    r.found = true;
    return r;
  }
  // A unique suffix on a component boundary: "a.txt" finds "src/a.txt".
  std::string tail(arg);
  for (char& c : tail)
    if (c == '\\') c = '/';
  while (tail.starts_with("./")) tail.erase(0, 2);
  if (tail.empty() || tail.starts_with("/")) return r;
  std::vector<std::string> matches;
  for (const auto& [p, file] : store.files())
    if (p.size() > tail.size() && p.ends_with(tail) && p[p.size() - tail.size() - 1] == '/')
      matches.push_back(p);
  if (matches.size() == 1) {
    r.path = matches.front();
    r.found = true;
  } else if (matches.size() > 1) {
    r.error = std::to_string(matches.size()) + " files match '" + kx::lang::printable(arg) +
              "' — did you mean:";
    for (const auto& m : matches) r.error += "\n  " + kx::lang::printable(m);
    r.error += "\n(give a fuller or absolute path to pick one)";
  }
  return r;
}

}  // namespace kst
