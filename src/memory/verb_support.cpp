#include "memory/verb_support.hpp"

#include <algorithm>
#include <cctype>

#include "lang/result.hpp"
#include "memory/verb_args.hpp"

namespace kx::memory {

std::string three_arg_usage(std::string_view verb) {
  return error_result("usage  memory." + std::string(verb) +
                      " <botid>, <context>, <arg>   (memory.help shows the manual)");
}

std::string no_memory(std::string_view topic, std::string_view context) {
  return error_result("no memory '" + std::string(topic) + "' in context '" + std::string(context) +
                      "'");
}

std::string first_line(std::string_view text) {
  return std::string(text.substr(0, text.find('\n')));
}

std::string lower(std::string_view s) {
  std::string out(s);
  for (char& c : out) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return out;
}

std::string join(const std::vector<std::string>& items, std::string_view separator) {
  std::string out;
  for (const std::string& item : items) {
    if (!out.empty()) out += separator;
    out += item;
  }
  return out;
}

bool three_args(std::string_view args, Target& out) {
  const auto fields = split_args(args, 3);
  if (fields.size() < 3 || fields[0].empty() || fields[1].empty() || fields[2].empty())
    return false;
  out = {fields[0], fields[1], fields[2]};
  return true;
}

std::string topic_count(const ContextStore& store, const PostingList& postings) {
  std::vector<const TopicNode*> topics;
  const std::size_t scanned = std::min(postings.size(), kCountLimit);
  topics.reserve(scanned);
  for (std::size_t i = 0; i < scanned; ++i)
    if (const RecordSlot* s = store.slot(postings[i].offset)) topics.push_back(s->topic);
  std::sort(topics.begin(), topics.end());
  const auto distinct = std::unique(topics.begin(), topics.end()) - topics.begin();
  return std::to_string(distinct) + (scanned < postings.size() ? "+" : "") + " topic(s)";
}

}  // namespace kx::memory
