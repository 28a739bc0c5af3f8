#include "launcher/resident_client.hpp"

#include <istream>
#include <iterator>
#include <ostream>

#include "platform/console.hpp"
#include "platform/process_info.hpp"
#include "platform/socket.hpp"

namespace kx::launcher {
namespace {

constexpr int kTimeoutMillis = 4000;
constexpr std::string_view kOutKey = "\"out\":\"";

int hex_digit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// The end of a JSON string starting at `from`: the first quote not escaped by an
// odd run of backslashes.
std::size_t string_end(std::string_view text, std::size_t from) {
  std::size_t i = from;
  while (i < text.size()) {
    if (text[i] == '\\') {
      i += 2;
      continue;
    }
    if (text[i] == '"') return i;
    ++i;
  }
  return text.size();
}

}  // namespace

std::string build_exec_request(const std::string& line, const std::optional<std::string>& cwd,
                               bool tty, const std::string& token) {
  std::string request = "POST /console/exec?bot=cli HTTP/1.1\r\nHost: 127.0.0.1\r\n";
  if (!token.empty()) request += "Authorization: Bearer " + token + "\r\n";
  if (cwd) request += "X-Kst-Cwd: " + *cwd + "\r\n";
  if (tty) request += "X-Kst-Tty: 1\r\n";
  request += "Content-Type: text/plain\r\nContent-Length: " + std::to_string(line.size()) +
             "\r\nConnection: close\r\n\r\n";
  request += line;
  return request;
}

std::string decode_lossy(std::string_view escaped) {
  std::string out;
  out.reserve(escaped.size());
  for (std::size_t i = 0; i < escaped.size(); ++i) {
    char c = escaped[i];
    if (c != '\\' || i + 1 >= escaped.size()) {
      out += c;
      continue;
    }
    char next = escaped[i + 1];
    switch (next) {
      case '"':
      case '/':
      case '\\':
        out += next;
        ++i;
        break;
      case 'n':
        out += '\n';
        ++i;
        break;
      case 'r':
        out += '\r';
        ++i;
        break;
      case 't':
        out += '\t';
        ++i;
        break;
      case 'b':
        out += '\b';
        ++i;
        break;
      case 'f':
        out += '\f';
        ++i;
        break;
      case 'u':
        if (i + 5 < escaped.size() && hex_digit(escaped[i + 2]) >= 0 &&
            hex_digit(escaped[i + 3]) >= 0 && hex_digit(escaped[i + 4]) >= 0 &&
            hex_digit(escaped[i + 5]) >= 0) {
          out += '?';
          i += 5;
        } else {
          out += c;
        }
        break;
      default:
        out += c;  // not an escape we know: keep the backslash, the next byte follows
        break;
    }
  }
  return out;
}

std::optional<std::string> reply_output(std::string_view reply) {
  std::size_t head_end = reply.find("\r\n\r\n");
  if (head_end == std::string_view::npos) return std::nullopt;
  std::string_view body = reply.substr(head_end + 4);
  std::size_t key = body.find(kOutKey);
  if (key == std::string_view::npos) return std::string(body);
  std::size_t start = key + kOutKey.size();
  return decode_lossy(body.substr(start, string_end(body, start) - start));
}

ExecOutcome exec_on_resident(std::uint16_t port, const std::string& line,
                             const std::string& token) {
  auto socket = platform::connect_loopback(port, kTimeoutMillis);
  if (!socket) return {};
  platform::set_send_timeout(*socket, kTimeoutMillis);
  platform::set_receive_timeout(*socket, kTimeoutMillis);
  std::optional<std::string> cwd;
  if (auto dir = platform::current_directory()) cwd = dir->string();
  // Approval and colour both want a person at a terminal, on both ends of the pipe.
  bool person = platform::stdin_is_terminal() && platform::stdout_is_terminal();
  if (!platform::send_all(*socket, build_exec_request(line, cwd, person, token))) return {};
  std::string reply;
  char chunk[4096];
  for (;;) {
    long n = platform::receive_some(*socket, chunk, sizeof chunk);
    if (n <= 0) break;
    reply.append(chunk, static_cast<std::size_t>(n));
  }
  if (reply.starts_with("HTTP/1.1 401")) return {ExecOutcome::kRefused, {}};
  auto output = reply_output(reply);
  if (!output) return {};
  return {ExecOutcome::kAnswered, std::move(*output)};
}

ExecOutcome::Kind forward_lines(std::uint16_t port, const std::string& line,
                                const std::string& token, std::istream& in, std::ostream& out,
                                std::string& unsent) {
  auto print = [&out](const std::string& text) {
    out << text;
    if (text.empty() || text.back() != '\n') out << '\n';
    out.flush();
  };
  if (!line.empty()) {
    ExecOutcome result = exec_on_resident(port, line, token);
    if (result.kind == ExecOutcome::kAnswered) print(result.output);
    return result.kind;
  }
  std::string next;
  while (std::getline(in, next)) {
    while (!next.empty() && (next.back() == '\r' || next.back() == '\n')) next.pop_back();
    if (next.empty()) continue;
    ExecOutcome result = exec_on_resident(port, next, token);
    if (result.kind == ExecOutcome::kAnswered) {
      print(result.output);
      continue;
    }
    // Nothing of the input is lost: the rest runs where the caller runs it.
    unsent = next + "\n" + std::string(std::istreambuf_iterator<char>(in), {});
    return result.kind;
  }
  return ExecOutcome::kAnswered;
}

}  // namespace kx::launcher
