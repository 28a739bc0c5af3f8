#pragma once
// A helper process started by another program (an agent's MCP server) must not
// outlive it: once the parent is gone, this process ends.
namespace kx::platform {

// Arranges for this process to exit within about a second of its parent's death.
// Call once, early; the check also covers a parent that died before the call.
void end_with_parent();

}  // namespace kx::platform
