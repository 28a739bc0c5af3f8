#include <system_error>

#include "platform/process_info.hpp"

namespace kx::platform {

std::optional<std::filesystem::path> current_directory() {
  std::error_code ec;
  auto dir = std::filesystem::current_path(ec);
  if (ec) return std::nullopt;
  return dir;
}

}  // namespace kx::platform
