// Latency of one versioned save of a 4 KiB file through the full save path: temporary
// file with fsync, promote, mirror copy with fsync, archive move, edit-log append with
// fsync. Prints median and p99 for a file with a short chain and for one whose chain
// grows to the number of saves.
//
// A plain program (not a Google Benchmark binary): bench/run-all.sh runs it as is.
// Usage: vfs_save_figures [directory on the disk to measure ("": the temporary one)] [saves]
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "vfs/save_path.hpp"

namespace fs = std::filesystem;

namespace {

struct Figures {
  double median_us, p99_us, max_us;
};

Figures summarise(std::vector<double> micros) {
  std::sort(micros.begin(), micros.end());
  auto at = [&](double q) { return micros[static_cast<std::size_t>(q * (micros.size() - 1))]; };
  return {at(0.5), at(0.99), micros.back()};
}

std::vector<double> run(kst::Store& store, int saves, int files) {
  std::ostringstream warn;
  std::vector<double> micros;
  std::string text(4096, 'k');
  for (int i = 0; i < saves; ++i) {
    std::string path = "src/file" + std::to_string(i % files) + ".txt";
    text[i % text.size()] = static_cast<char>('a' + i % 26);
    auto start = std::chrono::steady_clock::now();
    auto result = kst::save_file(store, path, text, kst::SaveRequest{}, warn);
    auto end = std::chrono::steady_clock::now();
    if (!result.ok || result.mirror_failed) {
      std::cerr << "save failed: " << result.message << warn.str() << "\n";
      std::exit(1);
    }
    micros.push_back(std::chrono::duration<double, std::micro>(end - start).count());
  }
  return micros;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> args(argv + 1, argv + argc);
  fs::path base = !args.empty() && !args[0].empty() ? fs::path(args[0]) : fs::temp_directory_path();
  int saves = args.size() > 1 ? std::stoi(args[1]) : 2000;
  base /= "kx_save_bench";
  fs::remove_all(base);
  fs::create_directories(base / "proj");

  for (int files : {100, 1}) {
    fs::remove_all(base / "mirror");
    kst::Store store(base / "proj", base / "mirror", kst::Policy{});
    std::ostringstream warn;
    std::string reason;
    store.load(warn, reason);
    Figures f = summarise(run(store, saves, files));
    std::printf(
        "versioned save, 4 KiB, %d saves over %d file(s) (chain up to %d): median %.0f us, "
        "p99 %.0f us, max %.0f us\n",
        saves, files, saves / files, f.median_us, f.p99_us, f.max_us);
  }
  fs::remove_all(base);
  return 0;
}
