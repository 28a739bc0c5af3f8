#include "launcher/mcp_entry.hpp"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "launcher/resident_link.hpp"
#include "launcher/workspace.hpp"
#include "platform/http_client.hpp"
#include "platform/parent_watch.hpp"
#include "protocols/mcp_server.hpp"
#include "protocols/mcp_stdio.hpp"

namespace kx::launcher {
namespace {

// A tool may legitimately run for long (chat_read long-polls about 25 s).
constexpr int kRelayTimeoutMillis = 10 * 60 * 1000;

// The in-process server, made only when first needed: a relayed session never
// loads the stores.
class LocalMcp {
 public:
  std::string handle(std::string_view message) {
    if (!server_) {
      workspace_ = make_workspace(true);  // an MCP session lives on
      protocols::ToolHost host;
      host.run = [bridge = make_exec_bridge(*workspace_)](std::string_view line) {
        return bridge(server::line_request("mcp", std::string(line))).printed();
      };
      server_ = std::make_unique<protocols::McpServer>(std::move(host));
    }
    return server_->handle(message);
  }

 private:
  std::unique_ptr<Workspace> workspace_;
  std::unique_ptr<protocols::McpServer> server_;
};

class Relay {
 public:
  Relay(std::uint16_t port, const std::string& token)
      : url_("http://127.0.0.1:" + std::to_string(port) + "/mcp"), port_(port) {
    headers_ = "Accept: application/json, text/event-stream\r\n";
    if (!token.empty()) headers_ += "Authorization: Bearer " + token + "\r\n";
  }

  std::string handle(std::string_view message) {
    if (!local_) {
      platform::HttpResponse answer =
          platform::http_post(url_, "application/json", message, kRelayTimeoutMillis, headers_);
      if (answer.ok && (answer.status == 200 || answer.status == 202 || answer.status == 400))
        return answer.body;
      if (answer.ok && (answer.status == 401 || answer.status == 403)) {
        // Refused at the door, so nothing ran there: this home's requests are
        // served here, now and from then on.
        std::fprintf(stderr,
                     "Kestrune: the resident on port %d refused this home's token — serving MCP "
                     "in this process\n",
                     port_);
        local_ = std::make_unique<LocalMcp>();
        return local_->handle(message);
      }
      if (answer.ok || answer.error.find("refused") == std::string::npos) {
        // The resident got the message and failed it: running it here too could
        // run it twice, so the client hears of the failure instead.
        std::fprintf(
            stderr, "Kestrune: mcp relay: %s\n",
            answer.ok ? ("HTTP " + std::to_string(answer.status)).c_str() : answer.error.c_str());
        return protocols::error_reply_for(
            message, -32603,
            "the resident on port " + std::to_string(port_) + " failed this request");
      }
      std::fprintf(stderr,
                   "Kestrune: the resident on port %d went away — serving MCP in this process\n",
                   port_);
      local_ = std::make_unique<LocalMcp>();
    }
    return local_->handle(message);
  }

 private:
  std::string url_;
  std::string headers_;
  std::uint16_t port_;
  std::unique_ptr<LocalMcp> local_;
};

}  // namespace

int run_mcp(std::uint16_t port) {
  platform::end_with_parent();
  // Finding the resident, or bringing one up, can take seconds (a slow start, a port
  // held by something that never answers). The handshake is the same wherever it is
  // answered, so the client hears it at once and only a first tool waits. A resident
  // of another home on the port means this home is served here, not refused there.
  auto found = std::make_shared<std::promise<std::optional<std::string>>>();
  std::future<std::optional<std::string>> reached = found->get_future();
  std::thread([found, port] { found->set_value(reach_own_resident(port)); }).detach();
  const protocols::McpServer handshake{protocols::ToolHost{}};
  std::unique_ptr<Relay> relay;
  std::unique_ptr<LocalMcp> local;
  int status = protocols::serve_stdio([&](std::string_view message) -> std::string {
    if (!relay && !local) {
      if (reached.wait_for(std::chrono::seconds(0)) != std::future_status::ready &&
          protocols::needs_no_tools(message))
        return handshake.handle(message);
      if (std::optional<std::string> token = reached.get())
        relay = std::make_unique<Relay>(port, *token);
      else
        local = std::make_unique<LocalMcp>();
    }
    return relay ? relay->handle(message) : local->handle(message);
  });
  // valid() turns false once the answer was taken.
  if (reached.valid() && reached.wait_for(std::chrono::seconds(0)) != std::future_status::ready) {
    // Input ended while the search went on: end now, before static objects it
    // may still use are destroyed.
    std::fflush(nullptr);
    std::_Exit(status);
  }
  return status;
}

}  // namespace kx::launcher
