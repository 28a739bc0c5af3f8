#include "launcher/entry.hpp"

int main(int argc, char** argv) {
  return kx::launcher::run_entry(argc, argv);
}
