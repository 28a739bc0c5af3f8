#pragma once
// The resident's main thread sleeps here until something asks it to stop: a
// shutdown request from the server, or the user's interrupt/terminate signal.
namespace kx::platform {

// Routes the interrupt and terminate signals to request_stop. Call once, early.
void install_stop_signals();

// Wakes wait_for_stop. Safe from any thread and from a signal handler.
void request_stop();

// Blocks until request_stop has been called (returns at once if it already was).
void wait_for_stop();

// Ignores the broken-pipe signal for the whole process.
void ignore_broken_pipe();

}  // namespace kx::platform
