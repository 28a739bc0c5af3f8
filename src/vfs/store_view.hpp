#pragma once
// Read-only JSON views of the stores for the browser workstation: the enrolled
// stores, one store's files with their version counts, one file's versions, a diff
// of two versions as rows, and a stamp that moves whenever any store records an
// edit. Built on the same calls as the history commands; the caller holds the
// interpreter's lock, as for a command.
#include <functional>
#include <optional>
#include <string>

#include "vfs/store_set.hpp"

namespace kx::vfs {

struct View {
  std::string status = "200 OK";  // HTTP status text
  std::string body;               // JSON, or the raw bytes of a version
};

// {"ok":true,"dirs":[..],"stores":[{"dir","policy","versioned","files","active"}]}
View stores_view(const kst::StoreSet& stores);

// {"ok":true,"store":..,"files":[{"path","versions","current","tombstone"}]} in path
// order; `store` is an enrolled directory ("" for the active store).
View tree_view(const kst::StoreSet& stores, const std::string& store);

// {"ok":true,"path":..,"current":N,"tombstone":b,"versions":[{"n","ts","time","op","who"}]}
View log_view(const kst::StoreSet& stores, const std::string& store, const std::string& path);

// {"ok":true,"a":N,"b":M,"rows":[{"t":"same|removed|added","a":line,"b":line,"text":..}]}
// Line numbers are 1-based; a removed row has no "b", an added row no "a".
// `let_go` is called once the two versions are copied, before the diff is computed:
// the caller may release the locks that keep other callers out.
View diff_view(const kst::StoreSet& stores, const std::string& store, const std::string& path,
               std::uint32_t a, std::uint32_t b, const std::function<void()>& let_go = {});

// The bytes of one version, unchanged (the body is not JSON).
View version_view(const kst::StoreSet& stores, const std::string& store, const std::string& path,
                  std::uint32_t version);

// {"ok":true,"stamp":".."}: changes whenever an edit log grows or a store joins.
View changes_view(const kst::StoreSet& stores);

}  // namespace kx::vfs
