// In-process grep times over an enrolled tree: the home is loaded as a resident
// loads it (every enrolled tree read into RAM), then each query runs through the
// interpreter as a forwarded command would. Prints the median of N runs per query.
// Usage: grep_figures <home> <tree> <runs> <query>...   (a query is grep's argument text)
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include "lang/interpreter.hpp"
#include "launcher/workspace.hpp"
#include "platform/home.hpp"

int main(int argc, char** argv) {
  if (argc < 5) {
    std::fprintf(stderr, "usage: grep_figures <home> <tree> <runs> <query>...\n");
    return 2;
  }
  kx::platform::set_home_override(argv[1]);
  auto workspace = kx::launcher::make_workspace(false);  // one run, no live watches
  workspace->session->cwd = argv[2];
  int runs = std::max(1, std::atoi(argv[3]));
  for (int q = 4; q < argc; ++q) {
    std::string line = std::string("grep ") + argv[q];
    std::vector<double> ms;
    std::string last;
    for (int r = 0; r < runs; ++r) {
      auto t0 = std::chrono::steady_clock::now();
      last = kx::lang::run_line(*workspace->session, "bench", line);
      auto t1 = std::chrono::steady_clock::now();
      ms.push_back(std::chrono::duration<double, std::milli>(t1 - t0).count());
    }
    std::sort(ms.begin(), ms.end());
    std::string summary =
        last.substr(last.rfind("\n-- ") == std::string::npos ? 0 : last.rfind("\n-- ") + 1);
    std::printf("  in-resident %-34s median %8.1f ms   %s\n", line.c_str(), ms[ms.size() / 2],
                summary.substr(0, summary.find('\n')).c_str());
  }
  return 0;
}
