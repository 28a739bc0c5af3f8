#include <windows.h>

#include "platform/env.hpp"
#include "platform/home.hpp"

namespace kx::platform {

std::filesystem::path user_profile_dir() {
  if (auto profile = get_env_nonempty("USERPROFILE")) return *profile;
  if (auto drive = get_env_nonempty("HOMEDRIVE"))
    if (auto path = get_env_nonempty("HOMEPATH")) return *drive + *path;
  return "C:\\";
}

}  // namespace kx::platform
