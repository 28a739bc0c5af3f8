#pragma once
// The pieces of the one admission check the router makes (router.cpp): which token
// a request presents, whether its Origin is this resident's own, and the browser's
// way in (a login link traded for a cookie).
#include <cstdint>
#include <string>
#include <string_view>

#include "server/http_request.hpp"
#include "server/http_response.hpp"

namespace kx::server {

inline constexpr const char* kTokenCookie = "kst_token";

// Whether the request carries `expected` as "Authorization: Bearer", "X-Kst-Token"
// or the kst_token cookie; with `query_allowed` also as a "token" query parameter
// (WebSocket clients outside a browser cannot set headers everywhere).
bool presents_token(const Request& request, std::string_view expected, bool query_allowed);

// True when the request has no Origin or names this resident: http://127.0.0.1:port,
// http://localhost:port, or http://<listen address>:port when the server listens on
// one specific address.
bool origin_is_own(const Request& request, std::uint16_t port, std::string_view listen_address);

// The answer to "/ui/<page>?token=...": a redirect to the same page that drops the
// token from the address bar, setting the cookie when the token is right.
Response ui_login(const Request& request, std::string_view expected);

// Whether a person stands behind an admitted request: the UI in the owner's browser
// (the token came as the kst_token cookie) or kx on a terminal (X-Kst-Tty: 1).
// Scripts and agents send the token as a header from a pipe and are neither.
bool person_behind(const Request& request, std::string_view expected);

// The answer to a request without the token: 401, saying how to get in.
Response unauthorized();

}  // namespace kx::server
