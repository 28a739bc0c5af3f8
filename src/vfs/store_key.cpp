#include "vfs/store_key.hpp"

#include <cstdio>

namespace kst {

std::uint32_t fnv1a_32(std::string_view bytes) {
  std::uint32_t hash = 0x811c9dc5u;
  for (unsigned char c : bytes) {
    hash ^= c;
    hash *= 16777619u;
  }
  return hash;
}

std::uint64_t fnv1a_64(std::string_view bytes) {
  std::uint64_t hash = 0xcbf29ce484222325ull;
  for (unsigned char c : bytes) {
    hash ^= c;
    hash *= 0x100000001b3ull;
  }
  return hash;
}

std::string store_key(std::string_view disk_root) {
  std::string key(disk_root);
  for (char& c : key) {
    bool keep = c == '-' || c == '.' || c == '_' || (c >= '0' && c <= '9') ||
                (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
    if (!keep) c = '_';
  }
  if (key.size() <= 40) return key;
  char hex[9];
  std::snprintf(hex, sizeof hex, "%08x", fnv1a_32(disk_root));
  return key.substr(0, 24) + "_" + hex;
}

}  // namespace kst
