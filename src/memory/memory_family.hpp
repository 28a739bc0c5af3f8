#pragma once
// The "memory." command family: persistent, keyword-indexed memory per bot and
// context. Registers every memory verb with the live registry; the family's help is
// generated from those registrations.
#include <filesystem>

#include "lang/registry.hpp"
#include "memory/embedding_client.hpp"

namespace kx::memory {

// `contexts_dir` is the root under which every context has its directory.
void register_memory_family(lang::Registry& registry, std::filesystem::path contexts_dir);

// The same with a substitute transport for the embedding lane (tests).
void register_memory_family(lang::Registry& registry, std::filesystem::path contexts_dir,
                            HttpPost post);

}  // namespace kx::memory
