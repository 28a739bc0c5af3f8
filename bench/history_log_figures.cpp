// fsvctl:log of one file with 10,000 versions, made through the real save path.
// Prints the time of the saves, of a log in the process that made them, and of a log
// after a fresh load (64 versions in RAM, the rest listed from the archive).
// Usage: history_log_figures [versions]   (bench/history_log.sh adds peak memory)
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "lang/session.hpp"
#include "vfs/enroll.hpp"
#include "vfs/history_families.hpp"
#include "vfs/save_path.hpp"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

double ms_since(Clock::time_point start) {
  return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

struct Program {
  Program(const fs::path& home, const fs::path& work)
      : stores(std::make_shared<kst::StoreSet>(home)) {
    stores->set_report(quiet);
    kx::vfs::register_lock_and_history_families(registry, stores);
    std::ostringstream progress;
    kst::enroll(*stores, work.string(), work, progress);
    session = std::make_unique<kx::lang::Session>(registry);
  }
  std::string log(const std::string& path) {
    const kx::lang::Family* f = registry.find_family("fsvctl");
    return kx::lang::find_verb(*f, "log")->run(*session, path);
  }
  std::ostringstream quiet;
  kx::lang::Registry registry;
  std::shared_ptr<kst::StoreSet> stores;
  std::unique_ptr<kx::lang::Session> session;
};

void time_log(Program& program, const char* label) {
  double best = 1e18;
  std::size_t bytes = 0;
  for (int run = 0; run < 5; ++run) {
    const auto start = Clock::now();
    bytes = program.log("a.txt").size();
    best = std::min(best, ms_since(start));
  }
  std::printf("fsvctl:log %s: %.1f ms (best of 5), %zu bytes\n", label, best, bytes);
}

}  // namespace

int main(int argc, char** argv) {
  const int versions = argc > 1 ? std::atoi(argv[1]) : 10'000;
  const fs::path root = fs::temp_directory_path() / "kx-history-log-bench";
  fs::remove_all(root);
  fs::create_directories(root / "work");
  std::ofstream(root / "work" / "a.txt") << "version 1\n";
  {
    Program program(root / "home", root / "work");
    const auto start = Clock::now();
    kst::SaveRequest request;
    for (int v = 2; v <= versions; ++v)
      kst::save_file(*program.stores->active(), "a.txt", "version " + std::to_string(v) + "\n",
                     request, program.quiet);
    std::printf("%d saves: %.0f ms\n", versions - 1, ms_since(start));
    time_log(program, "(same process)");
  }
  {
    const auto start = Clock::now();
    Program program(root / "home", root / "work");
    std::printf("fresh load of the store: %.0f ms\n", ms_since(start));
    const std::string head = program.log("a.txt").substr(0, 40);
    std::printf("first line: %s\n", head.substr(0, head.find('\n')).c_str());
    time_log(program, "(after a fresh load)");
  }
  fs::remove_all(root);
  return 0;
}
