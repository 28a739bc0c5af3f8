#include "protocols/mcp_stdio.hpp"

#include <cstdio>

#include "platform/console.hpp"

namespace kx::protocols {
namespace {

void answer(const std::function<std::string(std::string_view)>& handle, std::string_view line) {
  while (!line.empty() && (line.back() == '\r' || line.back() == '\n')) line.remove_suffix(1);
  if (line.empty()) return;
  std::string reply = handle(line);
  if (reply.empty()) return;
  reply += '\n';
  std::fwrite(reply.data(), 1, reply.size(), stdout);
  std::fflush(stdout);
}

}  // namespace

int serve_stdio(const std::function<std::string(std::string_view message)>& handle) {
  std::string pending;
  char buffer[65536];
  for (;;) {
    std::size_t n = platform::read_stdin(buffer, sizeof buffer);
    if (n == 0) break;
    pending.append(buffer, n);
    std::size_t start = 0;
    for (std::size_t eol = pending.find('\n'); eol != std::string::npos;
         eol = pending.find('\n', start)) {
      answer(handle, std::string_view(pending).substr(start, eol - start));
      start = eol + 1;
    }
    pending.erase(0, start);
  }
  answer(handle, pending);  // a last line without its line feed
  return 0;
}

}  // namespace kx::protocols
