#pragma once
// A context's settings file, "store.cfg":
//
//   [store]
//   embed=disarmed                                   ARMED or disarmed
//   embed.url=http://127.0.0.1:11434/api/embeddings  where vectors are asked for
//   embed.model=nomic-embed-text
//   sync=group                                       each: every add is on the disk
//                                                    before it answers; group: synced
//                                                    a few milliseconds later
//
// Unknown keys and lines are ignored; a missing file means the defaults.
#include <filesystem>
#include <string>

#include "platform/file_stamp.hpp"

namespace kx::memory {

struct StoreConfig {
  bool embed_armed = false;
  std::string embed_url = "http://127.0.0.1:11434/api/embeddings";
  std::string embed_model = "nomic-embed-text";
  bool sync_each = false;
};

StoreConfig read_store_config(const std::filesystem::path& file);

// Reads a settings file again only when it may have changed since it was last read.
class StoreConfigFollower {
 public:
  // Refills `config` from `file` when needed; true when it did.
  bool follow(const std::filesystem::path& file, StoreConfig& config);
  // The next follow reads the file whatever its stamp.
  void forget() { check_.forget(); }

 private:
  platform::FileChangeCheck check_;
};

// Returns "" or an error sentence.
std::string write_store_config(const std::filesystem::path& file, const StoreConfig& config);

}  // namespace kx::memory
