#pragma once
// The table of open contexts of this process. A context is opened on first use -
// its directory created, "context.id" written if missing, "store.cfg" read and
// "data.mem" loaded - and stays open for the life of the process. Listing the
// contexts on disk opens none of them.
//
// REQUIRES: external synchronisation (the interpreter session's lock).
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "memory/context_store.hpp"
#include "memory/store_config.hpp"

namespace kx::memory {

struct Context {
  explicit Context(std::string name) : store(std::move(name)) {}
  std::filesystem::path dir;
  std::filesystem::path config_path;  // "store.cfg" in `dir`
  StoreConfig config;
  StoreConfigFollower config_file;  // reads "store.cfg" into `config` when it changed
  ContextStore store;
};

struct ContextListing {
  std::string name;
  bool loaded = false;
  std::uint64_t bytes = 0;  // data file size, or heap size + magic when loaded
  std::size_t topics = 0;   // known only when loaded
};

class ContextTable {
 public:
  explicit ContextTable(std::filesystem::path root) : root_(std::move(root)) {}

  const std::filesystem::path& root() const { return root_; }

  // Opens (creating or loading) the context, or brings an open one in step with
  // what other processes wrote. Never fails: a context whose files cannot be read
  // or written still works in memory and reports errors on each write.
  Context& open(std::string_view bot, std::string_view name);
  // The same for a caller that writes to the context next: a write takes in what
  // others wrote under its own lock, so an open context is not brought in step
  // here. The caller hands the store to `gather` after writing.
  Context& open_to_write(std::string_view bot, std::string_view name);
  // Moves the store's warnings (damage found and mended by a write) to this table's.
  void gather(Context& context) { gather(context, {}); }
  // The "warning: " lines gathered by opening contexts since the last call, each
  // behind a newline; "" when there are none.
  std::string take_warnings();
  const Context* find_open(std::string_view bot, std::string_view name) const;

  // Every context of `bot` on disk or open, sorted by name. Loads nothing.
  std::vector<ContextListing> list(std::string_view bot) const;

  // Saves the context's settings. Returns "" or an error sentence.
  std::string save_config(Context& context);

 private:
  void gather(Context& context, const std::string& error);
  Context& open(std::string_view bot, std::string_view name, bool refresh);

  std::filesystem::path root_;
  GroupSync group_sync_;  // outlives no store: declared before the table of them
  std::string warnings_;
  std::unordered_map<std::string, std::unique_ptr<Context>> open_;  // by directory name
};

}  // namespace kx::memory
