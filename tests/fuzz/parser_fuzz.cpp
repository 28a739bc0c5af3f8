// libFuzzer entry: any bytes as a command stream through the scanner, parser and
// interpreter. Families record nothing and answer at once, so the fuzzer explores
// the grammar, not the stores.
#include <cstddef>
#include <cstdint>
#include <sstream>
#include <string_view>

#include "lang/parse_driver.hpp"
#include "lang/registry.hpp"
#include "lang/system_family.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static kx::lang::Registry registry = [] {
    kx::lang::Registry r;
    kx::lang::register_system_family(r);
    return r;
  }();
  kx::lang::Session session(registry);
  std::ostringstream out, err;
  std::string_view text(reinterpret_cast<const char*>(data), size);
  // Shell pass-through would run arbitrary programs: keep the fuzzer away from it.
  if (text.find('!') != std::string_view::npos || text.find('|') != std::string_view::npos ||
      text.find('&') != std::string_view::npos || text.find(';') != std::string_view::npos ||
      text.find('>') != std::string_view::npos || text.find('<') != std::string_view::npos)
    return 0;
  kx::lang::parse_string(session, text, out, err);
  return 0;
}
