#include "launcher/resident_client.hpp"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <random>

#include "lang/text.hpp"
#include "launcher/result_paint.hpp"
#include "launcher/unit_source.hpp"
#include "platform/console.hpp"
#include "platform/process_info.hpp"
#include "platform/socket.hpp"

namespace kx::launcher {
namespace {

constexpr int kConnectMillis = 4000;
constexpr int kSendMillis = 10000;

int hex_digit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// The four hex digits at `at`, or -1.
long hex4(std::string_view text, std::size_t at) {
  if (at + 4 > text.size()) return -1;
  long value = 0;
  for (std::size_t i = at; i < at + 4; ++i) {
    int digit = hex_digit(text[i]);
    if (digit < 0) return -1;
    value = value * 16 + digit;
  }
  return value;
}

void put_utf8(char*& to, unsigned long cp) {
  if (cp < 0x80) {
    *to++ = static_cast<char>(cp);
  } else if (cp < 0x800) {
    *to++ = static_cast<char>(0xC0 | (cp >> 6));
    *to++ = static_cast<char>(0x80 | (cp & 0x3F));
  } else if (cp < 0x10000) {
    *to++ = static_cast<char>(0xE0 | (cp >> 12));
    *to++ = static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    *to++ = static_cast<char>(0x80 | (cp & 0x3F));
  } else {
    *to++ = static_cast<char>(0xF0 | (cp >> 18));
    *to++ = static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
    *to++ = static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    *to++ = static_cast<char>(0x80 | (cp & 0x3F));
  }
}

}  // namespace

std::size_t json_string_end(std::string_view text, std::size_t from) {
  // Two memchr scans instead of a byte loop; the quote found stays valid until an
  // escape skips past it.
  std::size_t quote = text.find('"', from);
  std::size_t i = from;
  while (quote != std::string_view::npos) {
    std::size_t slash = text.find('\\', i);
    if (slash == std::string_view::npos || slash > quote) return quote;
    i = slash + 2;
    if (i > quote) quote = text.find('"', i);
  }
  return text.size();
}

namespace {

// The raw inside of the string field `key` found at or after `from`; `from` moves
// past it, so fields are read in the order the resident writes them.
std::optional<std::string_view> string_field(std::string_view body, std::string_view key,
                                             std::size_t& from) {
  std::string pattern = "\"" + std::string(key) + "\":\"";
  std::size_t at = body.find(pattern, from);
  if (at == std::string_view::npos) return std::nullopt;
  std::size_t start = at + pattern.size();
  std::size_t end = json_string_end(body, start);
  from = end;
  return body.substr(start, end - start);
}

int int_field(std::string_view body, std::string_view key, std::size_t from) {
  std::string pattern = "\"" + std::string(key) + "\":";
  std::size_t at = body.find(pattern, from);
  if (at == std::string_view::npos) return 0;
  int value = 0;
  for (std::size_t i = at + pattern.size(); i < body.size() && body[i] >= '0' && body[i] <= '9';
       ++i)
    value = value * 10 + (body[i] - '0');
  return value;
}

// "'fsmk:file a.txt …'": the unit's first line, short enough for one message.
std::string quoted_command(std::string_view unit) {
  std::string_view first = lang::trim(unit.substr(0, unit.find('\n')));
  std::string shown(first.substr(0, 80));
  if (first.size() > 80 || first.size() < lang::trim(unit).size()) shown += " …";
  return "'" + shown + "'";
}

void print_answer(const PostOutcome& answer) {
  if (!answer.err.empty()) {
    std::fwrite(answer.err.data(), 1, answer.err.size(), stderr);
    std::fflush(stderr);
  }
  // Painted exactly as a local run paints its results; plain answers are written
  // as they came, without a copy.
  const bool colour = platform::stdout_wants_color();
  const std::string painted = colour ? paint_text(answer.out) : std::string();
  const std::string& out = colour ? painted : answer.out;
  std::fwrite(out.data(), 1, out.size(), stdout);
  std::fflush(stdout);
}

}  // namespace

std::string build_exec_request(std::string_view unit, lang::UnitForm form,
                               const std::string& session, const std::optional<std::string>& cwd,
                               bool tty, const std::string& token) {
  std::string request = "POST /console/exec?bot=cli HTTP/1.1\r\nHost: 127.0.0.1\r\n";
  if (!token.empty()) request += "Authorization: Bearer " + token + "\r\n";
  if (cwd) request += "X-Kst-Cwd: " + *cwd + "\r\n";
  if (tty) request += "X-Kst-Tty: 1\r\n";
  if (!session.empty()) request += "X-Kst-Session: " + session + "\r\n";
  request += form == lang::UnitForm::kLines ? "X-Kst-Form: lines\r\n" : "X-Kst-Form: arguments\r\n";
  request += "Content-Type: text/plain\r\nContent-Length: " + std::to_string(unit.size()) +
             "\r\nConnection: close\r\n\r\n";
  request += unit;
  return request;
}

namespace {

// Decodes into `to`, which has room for escaped.size() bytes or is escaped.data()
// itself or before it: no escape decodes to more bytes than it takes, so writing
// never overtakes reading. Returns the end of what was written.
char* decode_json_to(char* to, std::string_view escaped) {
  for (std::size_t i = 0; i < escaped.size(); ++i) {
    // Text between escapes is copied a run at a time: answers can be megabytes.
    std::size_t slash = escaped.find('\\', i);
    if (slash == std::string_view::npos || slash + 1 >= escaped.size()) {
      std::memmove(to, escaped.data() + i, escaped.size() - i);
      to += escaped.size() - i;
      break;
    }
    std::memmove(to, escaped.data() + i, slash - i);
    to += slash - i;
    i = slash;
    char next = escaped[++i];
    switch (next) {
      case 'n':
        *to++ = '\n';
        break;
      case 'r':
        *to++ = '\r';
        break;
      case 't':
        *to++ = '\t';
        break;
      case 'b':
        *to++ = '\b';
        break;
      case 'f':
        *to++ = '\f';
        break;
      case 'u': {
        long cp = hex4(escaped, i + 1);
        if (cp < 0) {
          *to++ = '\\';  // not an escape: keep it as it came
          *to++ = 'u';
          break;
        }
        i += 4;
        if (cp >= 0xD800 && cp <= 0xDBFF && escaped.substr(i + 1).starts_with("\\u")) {
          long low = hex4(escaped, i + 3);
          if (low >= 0xDC00 && low <= 0xDFFF) {
            cp = 0x10000 + ((cp - 0xD800) << 10) + (low - 0xDC00);
            i += 6;
          }
        }
        if (cp >= 0xD800 && cp <= 0xDFFF) cp = 0xFFFD;  // a lone half has no character
        put_utf8(to, static_cast<unsigned long>(cp));
        break;
      }
      default:
        *to++ = next;
        break;  // \" \\ \/ and anything else: the character itself
    }
  }
  return to;
}

}  // namespace

std::string decode_json_string(std::string_view escaped) {
  std::string out(escaped.size(), '\0');
  out.resize(static_cast<std::size_t>(decode_json_to(out.data(), escaped) - out.data()));
  return out;
}

std::size_t reply_length(std::string_view reply) {
  constexpr std::string_view kField = "\r\nContent-Length: ";
  constexpr std::size_t kMost = std::size_t{1} << 30;  // a bad header sizes nothing
  std::size_t head_end = reply.find("\r\n\r\n");
  if (head_end == std::string_view::npos) return 0;
  std::size_t at = reply.substr(0, head_end).find(kField);
  if (at == std::string_view::npos) return 0;
  std::size_t length = 0;
  for (at += kField.size(); at < head_end && reply[at] >= '0' && reply[at] <= '9'; ++at) {
    length = length * 10 + static_cast<std::size_t>(reply[at] - '0');
    if (length > kMost) return 0;
  }
  return head_end + 4 + length;
}

namespace {

// With `owner` (the buffer `reply` views), "out" is decoded in place at its front
// and the buffer becomes the answer: a large answer is never copied once more.
PostOutcome parse_reply_in(std::string_view reply, std::string* owner) {
  PostOutcome outcome;
  std::size_t head_end = reply.find("\r\n\r\n");
  if (head_end == std::string_view::npos) {
    outcome.kind = PostOutcome::Kind::kLost;
    return outcome;
  }
  std::string_view status_line = reply.substr(0, reply.find("\r\n"));
  std::string_view body = reply.substr(head_end + 4);
  if (status_line.starts_with("HTTP/1.1 401")) {
    outcome.kind = PostOutcome::Kind::kRefused;
    return outcome;
  }
  std::size_t from = 0;
  std::optional<std::string_view> out;
  if (status_line.find(" 200 ") != std::string_view::npos) out = string_field(body, "out", from);
  if (!out) {
    outcome.kind = PostOutcome::Kind::kNotSent;  // refused before anything ran
    outcome.err = std::string(body);
    return outcome;
  }
  outcome.kind = PostOutcome::Kind::kAnswered;
  // "err" and "status" follow "out": read before "out" is written over the buffer.
  if (auto err = string_field(body, "err", from)) outcome.err = decode_json_string(*err);
  outcome.status = int_field(body, "status", from);
  if (owner == nullptr) {
    outcome.out = decode_json_string(*out);
  } else {
    owner->resize(static_cast<std::size_t>(decode_json_to(owner->data(), *out) - owner->data()));
    outcome.out = std::move(*owner);
  }
  return outcome;
}

}  // namespace

PostOutcome parse_reply(std::string_view reply) {
  return parse_reply_in(reply, nullptr);
}

PostOutcome post_unit(std::uint16_t port, std::string_view unit, lang::UnitForm form,
                      const std::string& session, const std::string& token) {
  PostOutcome not_sent;
  auto socket = platform::connect_loopback(port, kConnectMillis);
  if (!socket) return not_sent;
  platform::set_send_timeout(*socket, kSendMillis);
  std::optional<std::string> cwd;
  if (auto dir = platform::current_directory()) cwd = dir->string();
  // Approval and colour both want a person at a terminal, on both ends of the pipe.
  bool person = platform::person_at_console();
  // A request cut short is never run: the resident waits for its whole body.
  if (!platform::send_all(*socket, build_exec_request(unit, form, session, cwd, person, token)))
    return not_sent;
  // Sent: from here the answer is awaited however long the command runs; only a
  // closed connection ends the wait.
  platform::set_receive_timeout(*socket, 0);
  // Read straight into the reply: an answer can be megabytes, so once its head has
  // told its length the buffer is sized once, with a spare byte so the close still
  // reads as an end.
  std::string reply;
  std::size_t used = 0;
  std::size_t whole = 0;
  for (;;) {
    if (whole == 0 && (whole = reply_length(std::string_view(reply.data(), used))) != 0 &&
        reply.size() < whole + 1)
      reply.resize(whole + 1);
    if (reply.size() - used < (whole != 0 ? 1 : 16384))
      reply.resize(std::max<std::size_t>(reply.size() * 2, 65536));
    long n = platform::receive_some(*socket, reply.data() + used, reply.size() - used);
    if (n <= 0) break;
    used += static_cast<std::size_t>(n);
  }
  reply.resize(used);
  return parse_reply_in(reply, &reply);
}

std::string new_console_session() {
  std::random_device device;
  std::mt19937_64 generator((static_cast<std::uint64_t>(device()) << 32) ^ device());
  char text[17];
  std::snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(generator()));
  return text;
}

ForwardResult forward_units(std::uint16_t port, const std::string& line, UnitSource& source,
                            const std::string& token) {
  ForwardResult result;
  std::string session = new_console_session();
  // After a lost answer the resident is gone or going: a dying listener may still
  // take a connection, so nothing more is sent to it.
  bool resident_lost = false;
  auto post_one = [&](const std::string& unit, lang::UnitForm form) -> bool {
    if (resident_lost) return false;
    if (auto refusal = lang::unit_refusal(unit)) {
      // Refused the same way the resident and a local run refuse it, without a trip.
      PostOutcome refused;
      refused.out = *refusal + "\n";
      print_answer(refused);
      result.status = std::max(result.status, static_cast<int>(lang::kSyntaxError));
      return true;
    }
    PostOutcome answer = post_unit(port, unit, form, session, token);
    switch (answer.kind) {
      case PostOutcome::Kind::kAnswered:
        result.any_sent = true;
        print_answer(answer);
        result.status = std::max(result.status, answer.status);
        return true;
      case PostOutcome::Kind::kNotSent:
        return false;
      case PostOutcome::Kind::kRefused:
        result.refused = true;
        return false;
      case PostOutcome::Kind::kLost:
        result.any_sent = true;
        resident_lost = true;
        std::printf(
            "ERROR: the resident on port %d stopped while running %s — it may have run; check "
            "its effect before running it again\n",
            port, quoted_command(unit).c_str());
        std::fflush(stdout);
        result.status = std::max(result.status, 1);
        return true;  // never sent again; what follows was not sent
    }
    return false;
  };

  if (!line.empty()) {
    if (!post_one(line, lang::UnitForm::kArguments)) result.rest_runs_here = true;
    return result;
  }
  while (auto unit = source.next()) {
    if (!post_one(*unit, lang::UnitForm::kLines)) {
      source.put_back(std::move(*unit));
      result.rest_runs_here = true;
      return result;
    }
  }
  return result;
}

}  // namespace kx::launcher
