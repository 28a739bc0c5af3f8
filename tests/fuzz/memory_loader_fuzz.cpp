// Fuzzes the loader of a context's data file: any bytes must load without a crash,
// keep the records before the damage, and leave a store whose derived structures
// agree with its heap - also after a removal and an append on top.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "memory/context_store.hpp"
#include "memory/data_file.hpp"

namespace {

void check(bool ok) {
  if (!ok) std::abort();
}

// Every memo of every topic must parse where the indexes say it lies. (Records
// appended behind an unparsed tail are not reachable by walking the heap from the
// start, so the check goes from the indexes to the heap, not the other way.)
void check_consistent(const kx::memory::ContextStore& store) {
  check(store.heap().size() == store.used() && store.used() <= store.capacity());
  std::size_t memos = 0;
  for (const kx::memory::TopicNode* node = store.most_recent(); node; node = node->next) {
    check(!node->memos.empty());
    for (std::size_t i = 0; i < node->memos.size(); ++i) {
      const std::uint64_t offset = node->memos[i].offset;
      const kx::memory::RecordSlot* slot = store.slot(offset);
      check(slot != nullptr && slot->topic == node && slot->position == i);
      kx::memory::RecordView record;
      check(kx::memory::parse_record(store.heap().substr(offset), record));
      check(record.topic == node->topic && offset + record.size <= store.used());
      ++memos;
    }
  }
  check(memos == store.memo_count());
  for (const auto& [keyword, postings] : store.keyword_index()) {
    check(!postings.empty());
    for (const kx::memory::Posting& posting : postings)
      check(store.slot(posting.offset) != nullptr);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  kx::memory::ContextStore store("fuzz");  // no data path: nothing touches the disk
  kx::memory::load_from_bytes(store, bytes);
  check_consistent(store);
  if (bytes.starts_with(kx::memory::kMagic)) {
    // The heap holds records read from the file and nothing else.
    check(store.used() + kx::memory::kMagic.size() <= bytes.size());
  }

  if (const kx::memory::TopicNode* first = store.most_recent()) {
    const std::string tail_topic = first->topic;
    store.remove_record(first->memos.front().offset);
    check_consistent(store);
    store.append_record("appended after fuzzed load", {"fuzz"}, tail_topic, 1, {7});
    check_consistent(store);
  }
  return 0;
}
