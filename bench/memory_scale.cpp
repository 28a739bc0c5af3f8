// Figures for a large context, printed one per line:
//   memory_scale generate <context dir> <memos> <tsv>   build data.mem (and a TSV of
//                                                        the same memos for SQLite)
//   memory_scale load <context dir>                      load time, resident memory,
//                                                        raw keyword lookup latency
//   memory_scale verbs <contexts root> <bot> <context>   the same through the verbs
// Memos go ten to a topic. Each mode runs in a fresh process so that resident memory
// is that of one loaded context.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "lang/registry.hpp"
#include "lang/session.hpp"
#include "memory/context_store.hpp"
#include "memory/data_file.hpp"
#include "memory/memory_family.hpp"
#include "memory_workload.hpp"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

double seconds_since(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// VmRSS / VmHWM of this process in MB (Linux /proc; 0 where unavailable).
double proc_status_mb(const std::string& key) {
  std::ifstream in("/proc/self/status");
  std::string line;
  while (std::getline(in, line))
    if (line.starts_with(key + ":")) return std::stod(line.substr(key.size() + 1)) / 1024.0;
  return 0;
}

void print_latencies(const char* what, std::vector<double>& micros) {
  std::sort(micros.begin(), micros.end());
  const auto at = [&](double q) {
    return micros[static_cast<std::size_t>(q * (micros.size() - 1))];
  };
  std::printf("%s: median %.1f us, p90 %.1f us, p99 %.1f us, max %.1f us (%zu lookups)\n", what,
              at(0.5), at(0.9), at(0.99), micros.back(), micros.size());
}

std::vector<std::string> sample_keywords(std::size_t count) {
  kx::bench::MemoMaker maker(7);
  std::vector<std::string> out;
  for (std::size_t i = 0; i < count; ++i) out.push_back(maker.word());
  return out;
}

int generate(const fs::path& dir, std::size_t memos, const fs::path& tsv) {
  fs::create_directories(dir);
  kx::memory::ContextStore store("big");
  kx::bench::MemoMaker maker;
  std::ofstream table(tsv, std::ios::binary);
  const auto start = Clock::now();
  for (std::size_t i = 0; i < memos; ++i) {
    const std::string topic = "topic" + std::to_string(i / 10);
    const std::string content = maker.memo();
    store.append_record(content, {}, topic, 0, {});
    table << topic << '\t' << content << '\n';
  }
  const double built = seconds_since(start);
  const auto write_start = Clock::now();
  const std::string error = kx::memory::rewrite_data_file(dir / "data.mem", store.heap());
  if (!error.empty()) {
    std::fprintf(stderr, "%s\n", error.c_str());
    return 1;
  }
  std::printf(
      "generated: %zu memos in %zu topics, %.1f MB data.mem, %zu keywords; "
      "in-memory add %.0f memos/s, one rewrite %.2f s\n",
      store.memo_count(), store.topic_count(), (store.used() + 4) / 1e6, store.keyword_count(),
      memos / built, seconds_since(write_start));
  return 0;
}

int load(const fs::path& dir) {
  const double rss_before = proc_status_mb("VmRSS");
  kx::memory::ContextStore store("big");
  store.set_data_path(dir / "data.mem");
  const auto start = Clock::now();
  const std::clock_t cpu_start = std::clock();
  if (!kx::memory::load_data_file(store)) {
    std::fprintf(stderr, "cannot read %s\n", (dir / "data.mem").c_str());
    return 1;
  }
  const double load_s = seconds_since(start);
  const double cpu_s = static_cast<double>(std::clock() - cpu_start) / CLOCKS_PER_SEC;
  // The first keyword answer: postings and the topics of the first 50 hits.
  const std::string first_word = sample_keywords(1).front();
  std::size_t first_hits = 0;
  if (const auto postings = store.postings(first_word))
    for (std::size_t i = 0; i < postings->size() && i < 50; ++i)
      first_hits += store.slot((*postings)[i].offset)->topic->topic.size();
  const double first_s = seconds_since(start);
  std::error_code ec;
  const double file_mb = static_cast<double>(fs::file_size(dir / "data.mem", ec)) / 1e6;
  std::printf(
      "load (%s): %.3f s wall, %.2f s cpu for %zu memos (%.1f MB data.mem, %zu keywords, %zu "
      "topics)\n",
      store.loaded_from_index() ? "from data.mem.idx" : "every record read", load_s, cpu_s,
      store.memo_count(), file_mb, store.keyword_count(), store.topic_count());
  const double rss = proc_status_mb("VmRSS");
  std::printf(
      "first keyword answer %.3f s after the load began; resident then %.0f MB = %.2fx data.mem "
      "(peak %.0f MB, %.0f MB before load)\n",
      first_s, rss, rss * 1.048576 / file_mb, proc_status_mb("VmHWM"), rss_before);

  std::vector<double> micros;
  std::size_t total_hits = first_hits;
  for (const std::string& keyword : sample_keywords(2000)) {
    const auto t = Clock::now();
    // What a lookup needs before formatting: the postings and the first 50 topics.
    std::size_t hits = 0;
    if (const auto postings = store.postings(keyword)) {
      hits = postings->size();
      for (std::size_t i = 0; i < postings->size() && i < 50; ++i)
        total_hits += store.slot((*postings)[i].offset)->topic->topic.size();
    }
    micros.push_back(seconds_since(t) * 1e6);
    total_hits += hits;
  }
  print_latencies("raw keyword lookup (postings + first 50 topics)", micros);
  std::printf("resident after the lookups: %.0f MB\n", proc_status_mb("VmRSS"));
  return total_hits == 0 ? 1 : 0;
}

int verbs(const fs::path& root, const std::string& bot, const std::string& context) {
  kx::lang::Registry registry;
  kx::memory::register_memory_family(registry, root);
  kx::lang::Session session(registry);
  const kx::lang::Family* family = registry.find_family("memory");
  auto run = [&](const char* verb, const std::string& args) {
    return kx::lang::find_verb(*family, verb)->run(session, args);
  };
  const auto start = Clock::now();
  const std::string browse = run("contexts", bot + ", " + context);
  std::printf("memory.browse (loads the context): %.2f s; resident %.0f MB\n", seconds_since(start),
              proc_status_mb("VmRSS"));
  std::vector<double> micros;
  std::size_t bytes = 0;
  for (const std::string& keyword : sample_keywords(500)) {
    const auto t = Clock::now();
    bytes += run("keywords", bot + ", " + context + ", " + keyword).size();
    micros.push_back(seconds_since(t) * 1e6);
  }
  print_latencies("memory.keywords verb (50 hits listed + related topic counts)", micros);
  return bytes == 0 ? 1 : 0;
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::string> args(argv + 1, argv + argc);
  if (args.size() == 4 && args[0] == "generate")
    return generate(args[1], std::stoul(args[2]), args[3]);
  if (args.size() == 2 && args[0] == "load") return load(args[1]);
  if (args.size() == 4 && args[0] == "verbs") return verbs(args[1], args[2], args[3]);
  std::fprintf(stderr,
               "usage: memory_scale generate <dir> <memos> <tsv> | load <dir> | verbs <root> <bot> "
               "<context>\n");
  return 2;
}
