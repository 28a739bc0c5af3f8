#include "vfs/node.hpp"

#include <algorithm>
#include <system_error>

#include "lang/text.hpp"
#include "vfs/text_diff.hpp"

namespace kst {

namespace fs = std::filesystem;

bool iFileSystemObj::is_directory() const {
  return dynamic_cast<const Directory*>(this) != nullptr;
}

// --- File ---

std::unique_ptr<iFileSystemObj> File::clone() const {
  return std::make_unique<File>(*this);
}

std::string File::diff(const iFileSystemObj& other) const {
  const auto* file = dynamic_cast<const File*>(&other);
  if (file == nullptr) return "=== FILE DIFF ===\nERROR: other side is not a File.\n";
  return file_diff(text(), name, current, file->text(), file->name, file->current);
}

bool File::copy_on_disk(const fs::path& from, const fs::path& to, std::string& reason) const {
  std::error_code ec;
  fs::copy_file(from, to, fs::copy_options::overwrite_existing, ec);
  if (ec) reason = ec.message();
  return !ec;
}

bool File::remove_on_disk(const fs::path& path, std::string& reason) const {
  std::error_code ec;
  fs::remove(path, ec);
  if (ec) reason = ec.message();
  return !ec;
}

std::string File::render(const std::string& path) const {
  return std::string(tombstoned ? "  t  v" : "  f  v") + std::to_string(current) + "\t" +
         kx::lang::printable(path);
}

const std::string& File::text() const {
  static const std::string empty;
  return versions.empty() ? empty : versions.back().text;
}

void File::push_version(std::uint32_t number, std::string body) {
  versions.push_back({number, std::move(body)});
  // The archived versions in RAM plus the current one.
  if (versions.size() > kVersionsInRam + 1)
    versions.erase(versions.begin(), versions.end() - static_cast<long>(kVersionsInRam + 1));
  current = number;
}

const std::string* File::text_of(std::uint32_t number) const {
  for (const auto& v : versions)
    if (v.number == number) return &v.text;
  return nullptr;
}

// --- Directory ---

std::unique_ptr<iFileSystemObj> Directory::clone() const {
  auto copy = std::make_unique<Directory>(name);
  for (const auto& child : children) copy->children.push_back(child->clone());
  return copy;
}

std::uint32_t Directory::version() const {
  std::uint32_t largest = 0;
  for (const auto& child : children) largest = std::max(largest, child->version());
  return largest;
}

std::string Directory::diff(const iFileSystemObj& other) const {
  const auto* dir = dynamic_cast<const Directory*>(&other);
  if (dir == nullptr) return "=== DIRECTORY DIFF ===\nERROR: other side is not a Directory.\n";
  return directory_diff(*this, *dir);
}

bool Directory::copy_on_disk(const fs::path& from, const fs::path& to, std::string& reason) const {
  std::error_code ec;
  fs::copy(from, to, fs::copy_options::recursive | fs::copy_options::overwrite_existing, ec);
  if (ec) reason = ec.message();
  return !ec;
}

bool Directory::remove_on_disk(const fs::path& path, std::string& reason) const {
  std::error_code ec;
  fs::remove_all(path, ec);
  if (ec) reason = ec.message();
  return !ec;
}

std::string Directory::render(const std::string& path) const {
  return "  d  v" + std::to_string(version()) + "\t" + kx::lang::printable(path) + "/";
}

iFileSystemObj* Directory::child(std::string_view child_name) const {
  for (const auto& c : children)
    if (c->name == child_name) return c.get();
  return nullptr;
}

iFileSystemObj* Directory::adopt(std::unique_ptr<iFileSystemObj> node) {
  for (auto& c : children) {
    if (c->name == node->name) {
      c = std::move(node);
      return c.get();
    }
  }
  children.push_back(std::move(node));
  return children.back().get();
}

std::unique_ptr<iFileSystemObj> Directory::release(std::string_view child_name) {
  for (auto it = children.begin(); it != children.end(); ++it) {
    if ((*it)->name == child_name) {
      auto node = std::move(*it);
      children.erase(it);
      return node;
    }
  }
  return nullptr;
}

bool move_on_disk(const fs::path& from, const fs::path& to, std::string& reason) {
  std::error_code ec;
  fs::rename(from, to, ec);
  if (ec) reason = ec.message();
  return !ec;
}

}  // namespace kst
