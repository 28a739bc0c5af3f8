// The command-line client's reading of a resident's reply: any bytes must give
// an outcome, never a crash, and decoding never grows the text.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "launcher/resident_client.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view bytes(reinterpret_cast<const char*>(data), size);
  kx::launcher::parse_reply(bytes);
  if (kx::launcher::decode_json_string(bytes).size() > bytes.size()) __builtin_trap();
  return 0;
}
