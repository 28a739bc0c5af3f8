// Feeds arbitrary bytes, in arbitrary chunks, to the request reader and the
// parameter readers. The first byte picks the chunk size.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "server/http_request.hpp"
#include "server/request_reader.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  std::size_t step = 1 + data[0] % 64;
  std::string_view bytes(reinterpret_cast<const char*>(data + 1), size - 1);
  kx::server::RequestReader reader;
  for (std::size_t at = 0; at < bytes.size(); at += step)
    if (reader.feed(bytes.substr(at, step)) != kx::server::RequestReader::State::kNeedMore) break;
  reader.end_of_input();
  if (reader.state() == kx::server::RequestReader::State::kDone) {
    const auto& request = reader.request();
    if (request.method == "POST" && request.body.size() > kx::server::content_length(request))
      __builtin_trap();  // a POST body is never longer than announced
    kx::server::form_param(request.query, "bot");
    kx::server::has_form_param(request.query, "cmd");
    kx::server::url_decode(request.path);
  }
  return 0;
}
