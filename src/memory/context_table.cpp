#include "memory/context_table.hpp"

#include <algorithm>
#include <fstream>
#include <system_error>
#include <utility>

#include "memory/context_dir.hpp"
#include "memory/data_file.hpp"
#include "platform/durable_file.hpp"
#include "platform/read_file.hpp"

namespace kx::memory {
namespace fs = std::filesystem;

void ContextTable::gather(Context& context, const std::string& error) {
  if (!error.empty()) warnings_ += "\nwarning: context '" + context.store.name() + "': " + error;
  for (const std::string& warning : context.store.take_warnings()) warnings_ += "\n" + warning;
}

std::string ContextTable::take_warnings() {
  return std::exchange(warnings_, {});
}

Context& ContextTable::open(std::string_view bot, std::string_view name) {
  return open(bot, name, true);
}

Context& ContextTable::open_to_write(std::string_view bot, std::string_view name) {
  return open(bot, name, false);
}

Context& ContextTable::open(std::string_view bot, std::string_view name, bool refresh) {
  const std::string dir_name = context_dir_name(bot, name);
  if (auto it = open_.find(dir_name); it != open_.end()) {
    Context& context = *it->second;
    // Settings may have been changed by another process, too.
    if (context.config_file.follow(context.config_path, context.config))
      context.store.set_durable(context.config.sync_each);
    if (refresh) gather(context, context.store.refresh());
    return context;
  }

  auto context = std::make_unique<Context>(std::string(name));
  context->dir = root_ / dir_name;
  std::error_code ec;
  fs::create_directories(context->dir, ec);
  const fs::path id_file = context->dir / "context.id";
  if (!fs::exists(id_file, ec)) std::ofstream(id_file, std::ios::binary) << name;
  // A rewrite that crashed leaves its temporary file behind.
  for (fs::directory_iterator it(context->dir, ec), end; !ec && it != end; it.increment(ec))
    if (it->is_regular_file(ec) && !it->is_symlink(ec)) platform::remove_if_stale_temp(it->path());
  context->config_path = context->dir / "store.cfg";
  context->config_file.follow(context->config_path, context->config);
  context->store.set_data_path(context->dir / "data.mem");
  context->store.set_durable(context->config.sync_each);
  context->store.set_group_sync(&group_sync_);
  gather(*context, context->store.refresh());
  return *open_.emplace(dir_name, std::move(context)).first->second;
}

const Context* ContextTable::find_open(std::string_view bot, std::string_view name) const {
  auto it = open_.find(context_dir_name(bot, name));
  return it == open_.end() ? nullptr : it->second.get();
}

std::vector<ContextListing> ContextTable::list(std::string_view bot) const {
  const std::string prefix = bot_dir_prefix(bot);
  std::vector<ContextListing> out;
  std::error_code ec;
  for (fs::directory_iterator it(root_, ec), end; !ec && it != end; it.increment(ec)) {
    const std::string dir_name = it->path().filename().string();
    if (!dir_name.starts_with(prefix) || !it->is_directory(ec)) continue;
    ContextListing entry;
    if (auto open = open_.find(dir_name); open != open_.end()) {
      const Context& context = *open->second;
      entry.name = context.store.name();
      entry.loaded = true;
      entry.bytes = context.store.used() + kMagic.size();
      entry.topics = context.store.topic_count();
    } else {
      // The name is in "context.id"; without it the directory name is decoded.
      std::string id;
      if (platform::read_whole_file(it->path() / "context.id", id, 0) && !id.empty())
        entry.name = id;
      else if (auto decoded = unescape_name_part(dir_name.substr(prefix.size())))
        entry.name = *decoded;
      else
        continue;  // neither: no name would open this directory again

      std::error_code size_ec;
      const auto size = fs::file_size(it->path() / "data.mem", size_ec);
      entry.bytes = size_ec ? 0 : size;
    }
    out.push_back(std::move(entry));
  }
  std::sort(out.begin(), out.end(),
            [](const ContextListing& a, const ContextListing& b) { return a.name < b.name; });
  return out;
}

std::string ContextTable::save_config(Context& context) {
  // Settings changed in memory are read back from the file: when the write failed,
  // they are undone as before.
  context.config_file.forget();
  return write_store_config(context.config_path, context.config);
}

}  // namespace kx::memory
