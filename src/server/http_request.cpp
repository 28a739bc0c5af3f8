#include "server/http_request.hpp"

#include <algorithm>
#include <cctype>

namespace kx::server {
namespace {

std::string_view trim(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t' || text.back() == '\r'))
    text.remove_suffix(1);
  return text;
}

std::string lower(std::string_view text) {
  std::string out(text);
  std::transform(out.begin(), out.end(), out.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return out;
}

int hex_value(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

template <typename Visit>
void for_each_param(std::string_view form, Visit visit) {
  while (!form.empty()) {
    std::size_t amp = form.find('&');
    std::string_view pair = form.substr(0, amp);
    std::size_t eq = pair.find('=');
    if (visit(pair.substr(0, eq),
              eq == std::string_view::npos ? std::string_view() : pair.substr(eq + 1)))
      return;
    if (amp == std::string_view::npos) break;
    form.remove_prefix(amp + 1);
  }
}

}  // namespace

const std::string& Request::header(const std::string& name) const {
  static const std::string kEmpty;
  auto it = headers.find(name);
  return it == headers.end() ? kEmpty : it->second;
}

std::size_t find_head_end(std::string_view buffer, std::size_t from) {
  return buffer.find("\r\n\r\n", from);
}

void parse_head(std::string_view head, Request& request) {
  std::size_t line_end = head.find("\r\n");
  std::string_view request_line = head.substr(0, line_end);
  std::size_t sp1 = request_line.find(' ');
  request.method = std::string(request_line.substr(0, sp1));
  std::string_view target;
  if (sp1 != std::string_view::npos) {
    target = request_line.substr(sp1 + 1);
    target = target.substr(0, target.find(' '));
  }
  std::size_t question = target.find('?');
  request.path = std::string(target.substr(0, question));
  request.query =
      question == std::string_view::npos ? std::string() : std::string(target.substr(question + 1));

  std::string_view rest =
      line_end == std::string_view::npos ? std::string_view() : head.substr(line_end + 2);
  while (!rest.empty()) {
    std::size_t end = rest.find("\r\n");
    std::string_view line = rest.substr(0, end);
    std::size_t colon = line.find(':');
    if (colon != std::string_view::npos && colon > 0) {
      std::string name = lower(trim(line.substr(0, colon)));
      request.headers.emplace(std::move(name), std::string(trim(line.substr(colon + 1))));
    }
    if (end == std::string_view::npos) break;
    rest.remove_prefix(end + 2);
  }
}

std::size_t content_length(const Request& request) {
  const std::string& text = request.header("content-length");
  std::size_t value = 0;
  for (char c : text) {
    if (c < '0' || c > '9') break;
    if (value > kMaxBodyBytes * 16) return kMaxBodyBytes * 16;
    value = value * 10 + static_cast<std::size_t>(c - '0');
  }
  return value;
}

std::string url_decode(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    char c = text[i];
    if (c == '+') {
      out += ' ';
    } else if (c == '%' && i + 2 < text.size() && hex_value(text[i + 1]) >= 0 &&
               hex_value(text[i + 2]) >= 0) {
      out += static_cast<char>(hex_value(text[i + 1]) * 16 + hex_value(text[i + 2]));
      i += 2;
    } else {
      out += c;
    }
  }
  return out;
}

std::string form_param(std::string_view form, std::string_view name) {
  std::string value;
  for_each_param(form, [&](std::string_view key, std::string_view raw) {
    if (url_decode(key) != name) return false;
    value = url_decode(raw);
    return true;
  });
  return value;
}

bool has_form_param(std::string_view form, std::string_view name) {
  bool found = false;
  for_each_param(form, [&](std::string_view key, std::string_view) {
    found = url_decode(key) == name;
    return found;
  });
  return found;
}

}  // namespace kx::server
