// memory.add throughput: 200-byte memos into one context, each appended to its
// data file, through the store API and through the interpreter's run_line.
#include <benchmark/benchmark.h>

#include <filesystem>

#include "lang/interpreter.hpp"
#include "lang/session.hpp"
#include "memory/context_store.hpp"
#include "memory/memory_family.hpp"
#include "memory_workload.hpp"

namespace {

namespace fs = std::filesystem;

fs::path fresh_dir(const char* name) {
  const fs::path dir = fs::temp_directory_path() / name;
  fs::remove_all(dir);
  fs::create_directories(dir);
  return dir;
}

void MemoryAddStoreApi(benchmark::State& state) {
  const fs::path dir = fresh_dir("kx-bench-memory-api");
  kx::memory::ContextStore store("bench");
  store.set_data_path(dir / "data.mem");
  kx::bench::MemoMaker maker;
  std::vector<std::string> memos;
  for (int i = 0; i < 4096; ++i) memos.push_back(maker.memo());
  std::size_t i = 0;
  for (auto _ : state) {
    const std::string topic = "topic" + std::to_string(i);
    benchmark::DoNotOptimize(store.add(topic, {}, memos[i % memos.size()]));
    ++i;
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(i));
  state.counters["heap_MB"] = static_cast<double>(store.used()) / 1e6;
  fs::remove_all(dir);
}
BENCHMARK(MemoryAddStoreApi)->Unit(benchmark::kMicrosecond);

void MemoryAddRunLine(benchmark::State& state) {
  const fs::path dir = fresh_dir("kx-bench-memory-line");
  kx::lang::Registry registry;
  kx::memory::register_memory_family(registry, dir);
  kx::lang::Session session(registry);
  kx::bench::MemoMaker maker;
  std::vector<std::string> memos;
  for (int i = 0; i < 4096; ++i) memos.push_back(maker.memo());
  std::size_t i = 0;
  for (auto _ : state) {
    const std::string line =
        "memory.add cli, bench, topic" + std::to_string(i) + ", , " + memos[i % memos.size()];
    benchmark::DoNotOptimize(kx::lang::run_line(session, "cli", line));
    ++i;
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(i));
  fs::remove_all(dir);
}
BENCHMARK(MemoryAddRunLine)->Unit(benchmark::kMicrosecond);

}  // namespace
