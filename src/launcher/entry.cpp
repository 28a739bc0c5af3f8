#include "launcher/entry.hpp"

#include <cstdio>

namespace kx::launcher {

int run_entry(int, char**) {
  return 0;
}

}  // namespace kx::launcher
