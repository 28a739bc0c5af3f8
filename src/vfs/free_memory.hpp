#pragma once
// Free physical memory as the store sees it. Tests install a fixed figure.
#include <cstdint>
#include <functional>
#include <optional>

namespace kst {

std::optional<std::uint64_t> free_memory();

// Replaces the platform's figure until called again with an empty function.
void set_free_memory_for_testing(std::function<std::optional<std::uint64_t>()> probe);

}  // namespace kst
