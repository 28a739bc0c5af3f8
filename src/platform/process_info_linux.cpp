#include <malloc.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <system_error>

#include "platform/process_info.hpp"

namespace kx::platform {

std::filesystem::path executable_path() {
  std::error_code ec;
  auto path = std::filesystem::read_symlink("/proc/self/exe", ec);
  return ec ? std::filesystem::path() : path;
}

std::optional<std::uint64_t> free_physical_memory() {
  std::ifstream meminfo("/proc/meminfo");
  std::string key;
  std::uint64_t kib = 0;
  std::string unit;
  while (meminfo >> key >> kib >> unit) {
    if (key == "MemAvailable:") return kib * 1024;
  }
  return std::nullopt;
}

void keep_freed_memory_for_reuse() {
  // Fixed values also stop glibc from moving the thresholds on its own.
  ::mallopt(M_MMAP_THRESHOLD, 4 << 20);
  ::mallopt(M_TRIM_THRESHOLD, 8 << 20);
}

}  // namespace kx::platform
