#include <pwd.h>
#include <unistd.h>

#include "platform/env.hpp"
#include "platform/home.hpp"

namespace kx::platform {

std::filesystem::path user_profile_dir() {
  if (auto home = get_env_nonempty("HOME")) return *home;
  if (const passwd* entry = getpwuid(getuid()); entry != nullptr && entry->pw_dir != nullptr)
    return entry->pw_dir;
  return "/tmp";
}

}  // namespace kx::platform
