// The cost of one trip through the interpreter for a trivial structured command,
// and of the grammar front end on the same line.
#include <benchmark/benchmark.h>

#include <sstream>

#include "lang/interpreter.hpp"
#include "lang/parse_driver.hpp"
#include "lang/system_family.hpp"
#include "lang/turn_ring.hpp"

namespace {

kx::lang::Registry& registry() {
  static kx::lang::Registry r = [] {
    kx::lang::Registry built;
    kx::lang::register_system_family(built);
    kx::lang::Family family{"fsstat", ':', "bench", {}, nullptr};
    family.verbs.push_back(
        {"exists", {}, "", "", "", "", "", [](kx::lang::Session&, std::string_view args) {
           return "OK: no  (" + std::string(args) + " not found)";
         }});
    built.add_family(std::move(family));
    return built;
  }();
  return r;
}

void RunLineStructured(benchmark::State& state) {
  kx::lang::Session session(registry());
  for (auto _ : state)
    benchmark::DoNotOptimize(kx::lang::run_line(session, "cli", "fsstat:exists x"));
}
BENCHMARK(RunLineStructured);

// The same line where it makes no turn (a script's line): the difference to
// RunLineStructured is what recording a turn adds to every top-level line.
void RunLineStructuredNoTurn(benchmark::State& state) {
  kx::lang::Session session(registry());
  session.script_depth = 1;
  for (auto _ : state)
    benchmark::DoNotOptimize(kx::lang::run_line(session, "cli", "fsstat:exists x"));
}
BENCHMARK(RunLineStructuredNoTurn);

// One turn into a full ring (the oldest is dropped into the log queue and cleared).
void TurnRecordIntoFullRing(benchmark::State& state) {
  kx::lang::TurnRing ring;
  for (std::size_t i = 0; i < kx::lang::TurnRing::kDefaultDepth; ++i)
    ring.record("fsstat:exists x", "OK: no  (x not found)", std::nullopt);
  for (auto _ : state) {
    ring.record("fsstat:exists x", "OK: no  (x not found)", std::nullopt);
    ring.unlogged().clear();
  }
}
BENCHMARK(TurnRecordIntoFullRing);

void RunLineNatural(benchmark::State& state) {
  kx::lang::Session session(registry());
  for (auto _ : state)
    benchmark::DoNotOptimize(kx::lang::run_line(session, "cli", "Kestrune does x exist"));
}
BENCHMARK(RunLineNatural);

void ParseStringOneCommand(benchmark::State& state) {
  kx::lang::Session session(registry());
  std::ostringstream out, err;
  for (auto _ : state) {
    out.str("");
    kx::lang::parse_string(session, "fsstat:exists x\n", out, err);
  }
}
BENCHMARK(ParseStringOneCommand);

}  // namespace
