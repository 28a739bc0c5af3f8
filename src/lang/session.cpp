#include "lang/session.hpp"

#include "platform/process_info.hpp"

namespace kx::lang {

Session::Session(const Registry& registry_in) : registry(registry_in) {
  cwd = platform::current_directory().value_or(std::filesystem::path("."));
}

}  // namespace kx::lang
