#include <stdlib.h>

#include "platform/env.hpp"

namespace kx::platform {

void set_env(const char* name, const char* value) {
  ::_putenv_s(name, value);
}
void unset_env(const char* name) {
  ::_putenv_s(name, "");
}

}  // namespace kx::platform
