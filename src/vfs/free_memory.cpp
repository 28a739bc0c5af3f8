#include "vfs/free_memory.hpp"

#include "platform/process_info.hpp"

namespace kst {
namespace {

std::function<std::optional<std::uint64_t>()>& override_probe() {
  static std::function<std::optional<std::uint64_t>()> probe;
  return probe;
}

}  // namespace

std::optional<std::uint64_t> free_memory() {
  if (override_probe()) return override_probe()();
  return kx::platform::free_physical_memory();
}

void set_free_memory_for_testing(std::function<std::optional<std::uint64_t>()> probe) {
  override_probe() = std::move(probe);
}

}  // namespace kst
