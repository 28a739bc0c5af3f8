#pragma once
// The five W webs of a context: for each of who, what, when, where and why, which
// terms each topic carries ("its five dangling lists") and, inbound, which topics
// carry a term. The webs are derived from a memo's topic and content whenever a
// record is added or loaded and un-derived when it is removed; they are never stored.
//
// Derivation, kept deliberately simple and deterministic (removal re-derives the
// same terms from the record's bytes):
//   who   - the speaker prefix of the topic ("alice: standup" -> "alice") and
//           "@name" mentions in the content;
//   what  - the topic's tokens that are not stop words or plain numbers (at most 8);
//   when  - dates "yyyy-mm-dd", "yyyy/mm/dd", "yyyy.mm.dd" and "yyyy-mm" in the topic
//           or content, normalised to yyyy-mm[-dd] so string order is date order;
//   where - words holding a '/' or '\' (paths and URLs), trailing punctuation cut;
//   why   - up to six words after "because", "since", "so that" or "due to".
// Every term is lower case, so lookups fold their argument the same way.
#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

namespace kx::memory {

struct TopicNode;

enum class W { who = 0, what, when, where, why };
inline constexpr std::array<std::string_view, 5> kWNames = {"who", "what", "when", "where", "why"};

using W5Terms = std::array<std::vector<std::string>, 5>;

W5Terms derive_w5(std::string_view topic, std::string_view content);

class W5Web {
 public:
  void add(const TopicNode* topic, const W5Terms& terms);
  void remove(const TopicNode* topic, const W5Terms& terms);
  void erase_topic(const TopicNode* topic);
  void clear();

  // The terms a topic carries on one web, in first-derived order.
  std::vector<std::string> terms_of(const TopicNode* topic, W w) const;
  // Topics carrying a term that starts with `prefix` (folded to lower case), each once.
  std::vector<const TopicNode*> topics_with(W w, std::string_view prefix) const;

 private:
  struct Web {
    std::unordered_map<const TopicNode*, std::vector<std::pair<std::string, std::uint32_t>>>
        outbound;
    std::map<std::string, std::vector<const TopicNode*>, std::less<>> inbound;
  };
  std::array<Web, 5> webs_;
};

}  // namespace kx::memory
