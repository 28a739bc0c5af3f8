#pragma once
// The process entry: options, special verbs, and the choice between forwarding a
// line to the resident and running it here.

namespace kx::launcher {

int run_entry(int argc, char** argv);

}  // namespace kx::launcher
