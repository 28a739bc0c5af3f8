#pragma once
// The program's build version: residents with the same text are compatible.
namespace kx {

inline constexpr const char* kVersion = "1.0.11";

}  // namespace kx
