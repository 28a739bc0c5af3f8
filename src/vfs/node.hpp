#pragma once
// The node tree of a store: directories own their children, the store owns the root.
// A File carries its version chain: the versions held in RAM (the current one last)
// and the archived versions found on disk under its mirror copy.
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

namespace kst {

struct Version {
  std::uint32_t number = 0;
  std::string text;
};

struct ArchivedVersion {
  std::uint32_t number = 0;
  std::filesystem::path path;  // <mirror dir>/.<name>.oldversions/<name>.xx<N>
};

// At most this many versions of one file are held in RAM; older ones stay on disk.
inline constexpr std::size_t kVersionsInRam = 64;

struct iFileSystemObj {
  explicit iFileSystemObj(std::string node_name) : name(std::move(node_name)) {}
  virtual ~iFileSystemObj() = default;

  // A deep copy that the caller owns.
  virtual std::unique_ptr<iFileSystemObj> clone() const = 0;
  // A file's current version; a directory's largest among its children, 0 when empty.
  virtual std::uint32_t version() const = 0;
  // The file or directory diff report against another node.
  virtual std::string diff(const iFileSystemObj& other) const = 0;
  // Disk operations on the node's own kind (file copy, recursive directory copy).
  virtual bool copy_on_disk(const std::filesystem::path& from, const std::filesystem::path& to,
                            std::string& reason) const = 0;
  virtual bool remove_on_disk(const std::filesystem::path& path, std::string& reason) const = 0;
  // One listing line for the node (no trailing newline); `path` is its store path.
  virtual std::string render(const std::string& path) const = 0;

  bool is_directory() const;

  std::string name;
};

struct File final : iFileSystemObj {
  using iFileSystemObj::iFileSystemObj;

  std::unique_ptr<iFileSystemObj> clone() const override;
  std::uint32_t version() const override { return current; }
  std::string diff(const iFileSystemObj& other) const override;
  bool copy_on_disk(const std::filesystem::path& from, const std::filesystem::path& to,
                    std::string& reason) const override;
  bool remove_on_disk(const std::filesystem::path& path, std::string& reason) const override;
  std::string render(const std::string& path) const override;

  // The current text (the last version in RAM); empty when none is held.
  const std::string& text() const;
  // Adds a version as the current one and drops the oldest from RAM past the cap.
  void push_version(std::uint32_t number, std::string text);
  // The text of version `number` when it is in RAM, else nullptr.
  const std::string* text_of(std::uint32_t number) const;

  std::uint32_t current = 0;              // first version is 1
  std::vector<Version> versions;          // in RAM, ascending, current last
  std::vector<ArchivedVersion> archived;  // on disk, ascending
  bool tombstoned = false;
};

struct Directory final : iFileSystemObj {
  using iFileSystemObj::iFileSystemObj;

  std::unique_ptr<iFileSystemObj> clone() const override;
  std::uint32_t version() const override;
  std::string diff(const iFileSystemObj& other) const override;
  bool copy_on_disk(const std::filesystem::path& from, const std::filesystem::path& to,
                    std::string& reason) const override;
  bool remove_on_disk(const std::filesystem::path& path, std::string& reason) const override;
  std::string render(const std::string& path) const override;

  iFileSystemObj* child(std::string_view child_name) const;
  // Adds `node` (replacing a child of the same name) and returns it.
  iFileSystemObj* adopt(std::unique_ptr<iFileSystemObj> node);
  // Removes and returns the child, or nullptr.
  std::unique_ptr<iFileSystemObj> release(std::string_view child_name);

  std::vector<std::unique_ptr<iFileSystemObj>> children;  // in insertion order
};

// Moving on disk is the same for both kinds: a rename.
bool move_on_disk(const std::filesystem::path& from, const std::filesystem::path& to,
                  std::string& reason);

}  // namespace kst
