#pragma once
// Small helpers shared by the memory verbs: argument shapes, fixed error texts,
// list formatting.
#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "memory/context_store.hpp"

namespace kx::memory {

inline constexpr std::size_t kListLimit = 50;     // lines a listing shows before "... (k more)"
inline constexpr std::size_t kRelatedLimit = 12;  // related keywords shown with a lookup
inline constexpr std::size_t kCountLimit = 256;   // postings scanned for a related topic count

// "ERROR: usage  memory.<verb> <botid>, <context>, <arg>   (memory.help shows the manual)"
std::string three_arg_usage(std::string_view verb);
// "ERROR: no memory '<topic>' in context '<context>'"
std::string no_memory(std::string_view topic, std::string_view context);

std::string first_line(std::string_view text);
std::string lower(std::string_view s);
std::string join(const std::vector<std::string>& items, std::string_view separator);

// Bot, context and one more non-empty argument: the shape of most verbs.
struct Target {
  std::string bot, context, arg;
};
bool three_args(std::string_view args, Target& out);

// "<n> topic(s)": the distinct topics among a keyword's postings. Counting stops
// after kCountLimit postings ("<n>+ topic(s)") so a very common related keyword
// cannot make a lookup slow.
std::string topic_count(const ContextStore& store, const PostingList& postings);

}  // namespace kx::memory
