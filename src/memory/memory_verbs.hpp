#pragma once
// Internals of the memory family: its shared state and verb table.
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "lang/registry.hpp"
#include "memory/context_table.hpp"
#include "memory/embedding_client.hpp"
#include "memory/w5_web.hpp"

namespace kx::memory {

struct MemoryState {
  MemoryState(std::filesystem::path root, HttpPost post)
      : contexts(std::move(root)), post(std::move(post)) {}
  ContextTable contexts;
  HttpPost post;
};

// The reference text of a verb beyond its registration: the note line.
std::string_view verb_note(std::string_view verb);

// Verbs with files of their own (web_verbs.cpp, lane_verbs.cpp).
std::string run_w5(MemoryState& state, std::string_view args);
std::string run_inbound(MemoryState& state, std::string_view args, W w);
std::string run_w5build(MemoryState& state, std::string_view args);
std::string run_temporal(MemoryState& state, std::string_view args);
std::string run_thematic(MemoryState& state, std::string_view args);
std::string run_clone(MemoryState& state, std::string_view args);
std::string run_embed(MemoryState& state, std::string_view args);
std::string run_sync(MemoryState& state, std::string_view args);
std::string run_semantic(MemoryState& state, std::string_view args);

// The grammar's "?( query )": the query over every context of the session's bot;
// matches are "<context>: <topic>".
std::string run_query_word(MemoryState& state, lang::Session& session, std::string_view inner);

std::vector<lang::Verb> make_memory_verbs(const std::shared_ptr<MemoryState>& state);

// The full capability reference, generated from the family as registered.
std::string memory_help(const lang::Family& family);

}  // namespace kx::memory
