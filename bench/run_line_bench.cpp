// The cost of one trip through the interpreter for a trivial structured command,
// and of the grammar front end on the same line.
#include <benchmark/benchmark.h>

#include <sstream>

#include "lang/interpreter.hpp"
#include "lang/parse_driver.hpp"
#include "lang/system_family.hpp"

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
