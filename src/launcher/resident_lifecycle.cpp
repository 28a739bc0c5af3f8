#include "launcher/resident_lifecycle.hpp"

#include <chrono>
#include <cstdio>
#include <thread>

#include "launcher/server_config.hpp"
#include "platform/env.hpp"
#include "platform/home.hpp"
#include "platform/instance_lock.hpp"
#include "platform/login_start.hpp"
#include "platform/process_info.hpp"
#include "platform/socket.hpp"
#include "platform/spawn.hpp"
#include "platform/stop_signal.hpp"
#include "server/home_token.hpp"
#include "server/version.hpp"

namespace kx::launcher {
namespace {

using namespace std::chrono_literals;

constexpr int kProbeTimeoutMillis = 1200;
constexpr int kShutdownTimeoutMillis = 1500;
// A port held by a listener that never answers costs each probe its whole timeout,
// so the wait for a resident just spawned is bounded in time, not in probes.
constexpr auto kBringUpWait = 8s;
constexpr int kShutdownProbes = 60;  // x 100 ms
constexpr int kBootProbes = 1300;    // x 100 ms
// A peer that trickles bytes must not keep a probe alive past this.
constexpr auto kExchangeDeadline = 5s;

std::string exchange(std::uint16_t port, int timeout_millis, std::string_view request,
                     std::size_t piece) {
  auto socket = platform::connect_loopback(port, timeout_millis);
  if (!socket) return {};
  platform::set_send_timeout(*socket, timeout_millis);
  platform::set_receive_timeout(*socket, timeout_millis);
  if (!platform::send_all(*socket, request)) return {};
  std::string reply;
  std::string buffer(piece, '\0');
  const auto deadline = std::chrono::steady_clock::now() + kExchangeDeadline;
  while (std::chrono::steady_clock::now() < deadline && reply.size() < (1u << 20)) {
    long n = platform::receive_some(*socket, buffer.data(), buffer.size());
    if (n <= 0) break;
    reply.append(buffer.data(), static_cast<std::size_t>(n));
  }
  return reply;
}

std::string url(std::uint16_t port) {
  return "http://127.0.0.1:" + std::to_string(port) + "/";
}

// Runs the server on a thread of its own and waits until our own probe answers.
// Nothing when the port could not be served.
struct Serving {
  std::unique_ptr<server::Server> server;
  std::thread thread;
};

bool start_serving(const ResidentOptions& options, Serving& serving) {
  std::optional<server::ServerOptions> configured = resident_server_options(options.port);
  if (!configured) return false;
  server::ServerOptions server_options = std::move(*configured);
  server_options.exec = options.exec;
  server_options.views = options.views;
  server_options.on_shutdown = [] { platform::request_stop(); };
  serving.server = std::make_unique<server::Server>(std::move(server_options));
  serving.thread = std::thread([server = serving.server.get()] { server->serve(); });
  for (int i = 0; i < kBootProbes; ++i) {
    if (serving.server->phase() == server::Server::Phase::kFailed) break;
    if (serving.server->phase() == server::Server::Phase::kListening &&
        probe(options.port).health == Health::kCompatible)
      return true;
    std::this_thread::sleep_for(100ms);
  }
  std::fprintf(stderr,
               "Kestrune: boot could not bind port %d (held by another process) — exiting instead "
               "of running a listener-less resident\n",
               options.port);
  serving.server->stop();
  serving.thread.join();
  return false;
}

void stop_serving(Serving& serving) {
  serving.server->stop();
  serving.thread.join();
  // Let answers under way (the "/shutdown" reply among them) reach their clients.
  for (int i = 0; i < 30 && serving.server->active_connections() > 0; ++i)
    std::this_thread::sleep_for(100ms);
}

void check_configuration() {
  std::error_code ec;
  for (const auto& file : {platform::legacy_config_file(), platform::main_config_file(),
                           platform::enrolled_dirs_file()})
    if (std::filesystem::exists(file, ec)) return;
  std::fputs("Kestrune: No configuration found — set it up in the tray.\n", stderr);
}

// The login link carries the secret, so it is shown to the person who asked for
// the UI and handed to their browser, and nowhere else.
void open_ui(std::uint16_t port) {
  std::string link = ui_login_url(port);
  std::printf("Kestrune UI: %s\n", link.c_str());
  std::fflush(stdout);
  platform::open_url(link);
}

int serve_until_stopped(const ResidentOptions& options) {
  platform::install_stop_signals();
  platform::ignore_broken_pipe();  // a closed stdout must not end the resident
  Serving serving;
  if (!start_serving(options, serving)) return 1;
  if (options.print_up_line) {
    std::printf("Kestrune orchestration server up — http://127.0.0.1:%d/\n", options.port);
    std::fflush(stdout);
  }
  if (options.config_check) check_configuration();
  if (options.open_browser) open_ui(options.port);
  platform::wait_for_stop();
  stop_serving(serving);
  return 0;
}

}  // namespace

ProbeResult classify_health_reply(std::string_view reply) {
  ProbeResult result;
  if (reply.empty()) return result;
  std::size_t head_end = reply.find("\r\n\r\n");
  std::string_view body =
      head_end == std::string_view::npos ? std::string_view() : reply.substr(head_end + 4);
  if (body.find("\"app\":\"Kestrune\"") == std::string_view::npos) {
    result.health = Health::kForeign;
    return result;
  }
  auto field = [body](std::string_view key) {
    std::size_t at = body.find(key);
    if (at == std::string_view::npos) return std::string();
    std::string_view rest = body.substr(at + key.size());
    return std::string(rest.substr(0, rest.find('"')));
  };
  result.version = field("\"version\":\"");
  result.home = field("\"home\":\"");
  result.health = result.version == kVersion ? Health::kCompatible : Health::kOtherVersion;
  return result;
}

ProbeResult probe(std::uint16_t port) {
  return classify_health_reply(
      exchange(port, kProbeTimeoutMillis,
               "GET /health HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n", 2048));
}

int compare_versions(std::string_view a, std::string_view b) {
  auto next = [](std::string_view& text) {
    long value = 0;
    std::size_t i = 0;
    while (i < text.size() && text[i] >= '0' && text[i] <= '9' && value < 1000000000)
      value = value * 10 + (text[i++] - '0');
    std::size_t dot = text.find('.', i);
    text = dot == std::string_view::npos ? std::string_view() : text.substr(dot + 1);
    return value;
  };
  while (!a.empty() || !b.empty()) {
    long x = next(a), y = next(b);
    if (x != y) return x < y ? -1 : 1;
  }
  return 0;
}

bool bring_up(std::uint16_t port) {
  Health health = probe(port).health;
  if (health == Health::kCompatible) return true;
  if (health != Health::kNothing) return false;
  std::filesystem::path self = platform::executable_path();
  if (self.empty() || self.string().size() > 4096) return false;
  std::vector<std::string> args = {"boot", "--port", std::to_string(port)};
  if (platform::has_home_override()) {
    args.push_back("--conf");
    args.push_back(platform::home_dir().string());
  }
  if (!platform::spawn_detached(self, args, self.parent_path())) return false;
  const auto deadline = std::chrono::steady_clock::now() + kBringUpWait;
  while (std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(100ms);
    if (probe(port).health == Health::kCompatible) return true;
  }
  return false;
}

bool shut_down(std::uint16_t port) {
  std::string token = own_home_token();
  std::string request = "POST /shutdown HTTP/1.1\r\nHost: 127.0.0.1\r\nX-Kst-Control: shutdown\r\n";
  if (!token.empty()) request += "Authorization: Bearer " + token + "\r\n";
  request += "Content-Length: 0\r\nConnection: close\r\n\r\n";
  std::string reply = exchange(port, kShutdownTimeoutMillis, request, 1024);
  if (reply.find(" 200") == std::string::npos) return false;
  for (int i = 0; i < kShutdownProbes; ++i) {
    if (probe(port).health == Health::kNothing) return true;
    std::this_thread::sleep_for(100ms);
  }
  return false;
}

int boot(const ResidentOptions& options) {
  auto lock = platform::try_lock_instance(options.port);
  if (!lock) return 0;
  return serve_until_stopped(options);
}

int serve_in_foreground(const ResidentOptions& options) {
  auto lock = platform::try_lock_instance(options.port);
  if (!lock) {
    std::printf("Kestrune resident already running — http://127.0.0.1:%d/\n", options.port);
    std::fflush(stdout);
    if (options.open_browser) open_ui(options.port);
    return 0;
  }
  return serve_until_stopped(options);
}

std::string own_home_token() {
  return server::read_token(server::token_file(platform::home_dir())).value_or("");
}

std::string ui_login_url(std::uint16_t port, std::string_view page) {
  return url(port) + "ui/" + std::string(page) + "?token=" + own_home_token();
}

std::optional<server::ServerOptions> resident_server_options(std::uint16_t port) {
  server::ServerOptions options;
  std::string warning;
  std::optional<std::string> token =
      server::ensure_token(server::token_file(platform::home_dir()), warning);
  if (!token) {
    std::fprintf(stderr, "Kestrune: cannot keep the resident's token — %s\n", warning.c_str());
    return std::nullopt;
  }
  if (!warning.empty()) std::fprintf(stderr, "warning: %s\n", warning.c_str());
  options.token = *token;
  options.port = port;
  options.listen_address = configured_listen_address();
  std::filesystem::path exe_dir = platform::executable_path().parent_path();
  options.asset_roots = {exe_dir, exe_dir.parent_path(),
                         exe_dir.parent_path() / "share" / "kestrune"};
  std::filesystem::path user = platform::user_data_dir();
  options.chat.chatlogs = user / "chatlogs";
  options.chat.callsigns = user / "config" / "bot.cfg";
  options.chat.password_files = {user / "config" / "chat.pw"};
  if (auto program_data = platform::get_env_nonempty("ProgramData"))
    options.chat.password_files.push_back(std::filesystem::path(*program_data) / "Kestrune" /
                                          "config" / "chat.pw");
  if (auto retry = platform::get_env_nonempty("KESTRUNE_BIND_RETRY_MS"))
    options.bind_retry_millis = std::atoi(retry->c_str());
  return options;
}

bool register_startup() {
  return platform::register_login_start(platform::executable_path());
}

}  // namespace kx::launcher
