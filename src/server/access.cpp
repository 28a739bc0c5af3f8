#include "server/access.hpp"

#include "lang/text.hpp"
#include "server/home_token.hpp"

namespace kx::server {
namespace {

// Every value of the cookie `name` in a Cookie header ("a=1; kst_token=x").
bool cookie_matches(std::string_view header, std::string_view name, std::string_view expected) {
  bool match = false;
  while (!header.empty()) {
    std::size_t end = header.find(';');
    std::string_view pair = lang::trim(header.substr(0, end));
    header = end == std::string_view::npos ? std::string_view() : header.substr(end + 1);
    std::size_t eq = pair.find('=');
    if (eq == std::string_view::npos || lang::trim(pair.substr(0, eq)) != name) continue;
    match = tokens_equal(lang::trim(pair.substr(eq + 1)), expected) || match;
  }
  return match;
}

}  // namespace

bool presents_token(const Request& request, std::string_view expected, bool query_allowed) {
  if (expected.empty()) return false;  // a server without a token admits nobody
  const std::string& authorization = request.header("authorization");
  std::string_view bearer = authorization;
  if (bearer.size() > 7 && lang::to_lower(bearer.substr(0, 7)) == "bearer " &&
      tokens_equal(lang::trim(bearer.substr(7)), expected))
    return true;
  if (tokens_equal(lang::trim(request.header("x-kst-token")), expected)) return true;
  if (cookie_matches(request.header("cookie"), kTokenCookie, expected)) return true;
  return query_allowed && tokens_equal(form_param(request.query, "token"), expected);
}

bool origin_is_own(const Request& request, std::uint16_t port, std::string_view listen_address) {
  auto found = request.headers.find("origin");
  if (found == request.headers.end()) return true;
  const std::string origin = lang::to_lower(found->second);
  const std::string suffix = ":" + std::to_string(port);
  if (origin == "http://127.0.0.1" + suffix || origin == "http://localhost" + suffix) return true;
  bool specific = !listen_address.empty() && listen_address != "0.0.0.0";
  return specific && origin == "http://" + std::string(listen_address) + suffix;
}

bool person_behind(const Request& request, std::string_view expected) {
  if (request.header("x-kst-tty") == "1") return true;
  return !expected.empty() && cookie_matches(request.header("cookie"), kTokenCookie, expected);
}

Response ui_login(const Request& request, std::string_view expected) {
  // Back to the page that was asked for, so a link may open any page of the UI.
  const std::string page = request.path == "/ui" ? std::string("/ui/") : request.path;
  Response answer{"303 See Other", kText, "see " + page};
  answer.extra_headers = "Location: " + page + "\r\n";
  if (tokens_equal(form_param(request.query, "token"), expected))
    answer.extra_headers += std::string("Set-Cookie: ") + kTokenCookie + "=" +
                            std::string(expected) + "; HttpOnly; SameSite=Strict; Path=/\r\n";
  return answer;
}

Response unauthorized() {
  Response answer = json_response(
      "401 Unauthorized",
      R"({"ok":false,"error":"this resident serves its owner only: run `kx gui` to open the UI, or send the token from resident.token in the resident's home as Authorization: Bearer <token>"})");
  answer.extra_headers = "WWW-Authenticate: Bearer realm=\"Kestrune\"\r\n";
  return answer;
}

}  // namespace kx::server
