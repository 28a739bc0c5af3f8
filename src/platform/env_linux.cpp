#include <stdlib.h>

#include "platform/env.hpp"

namespace kx::platform {

void set_env(const char* name, const char* value) {
  ::setenv(name, value, 1);
}
void unset_env(const char* name) {
  ::unsetenv(name);
}

}  // namespace kx::platform
