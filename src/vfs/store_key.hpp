#pragma once
// The store key: the name of a store's directory inside the version mirror,
// derived from the disk root's path so that one root always finds its history.
#include <cstdint>
#include <string>
#include <string_view>

namespace kst {

std::uint32_t fnv1a_32(std::string_view bytes);
std::uint64_t fnv1a_64(std::string_view bytes);

// Characters outside [-._0-9A-Za-z] become '_'. Up to 40 characters that is the key;
// longer ones keep their first 24 characters, then "_" and the FNV-1a 32 of the
// original path as 8 lower-case hex digits.
std::string store_key(std::string_view disk_root);

}  // namespace kst
