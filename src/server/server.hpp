#pragma once
// The resident's HTTP/1.1 and WebSocket server: one listening socket, one request
// and one answer per connection (except a WebSocket upgrade, which keeps its
// connection for frames). One thread owns every connection and waits on them all;
// a complete request goes to a small pool of workers, so an idle or slow peer
// costs a socket, never a thread.
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "server/chat_hub.hpp"
#include "server/http_request.hpp"
#include "server/http_response.hpp"

namespace kx::server {

// One command line handed to the interpreter by "/console/exec" or "/interp".
struct ExecRequest {
  std::string bot;
  std::string line;
  std::string cwd;        // the caller's working directory, "" when not sent
  bool tty = false;       // the caller's output is a terminal
  bool person = false;    // a person sent it (see person_behind in access.hpp)
  std::string session;    // the caller's console ("" when it keeps none): its state carries over
  bool arguments = true;  // one command line (a newline in it is text), not framed input
  // A structured command from one of the resident's own pages, run as it is
  // rather than through the grammar front end.
  bool structured_only = false;
};

// One command line from a caller that keeps no console (MCP, the UI).
inline ExecRequest line_request(std::string bot, std::string line) {
  ExecRequest request;
  request.bot = std::move(bot);
  request.line = std::move(line);
  return request;
}

// What a line printed: results, parse errors, and the exit status a local run gives.
struct ExecResult {
  ExecResult(std::string out_in = {}, std::string err_in = {}, int status_in = 0)
      : out(std::move(out_in)), err(std::move(err_in)), status(status_in) {}
  std::string out;
  std::string err;
  int status = 0;
  // Both streams as one text, for callers that show a single answer.
  std::string printed() const { return err + out; }
};
using ExecBridge = std::function<ExecResult(const ExecRequest&)>;

// A read-only answer the server cannot compute itself, since it links no subsystem
// (the store's file tree, a file's versions, a diff). The launcher supplies them,
// keyed by route path, and runs each under the interpreter's lock.
using ViewHandler = std::function<Response(const Request&)>;

// The time-outs and limits of a connection.
struct ServerLimits {
  int receive_timeout_millis = 15000;   // silence while a request is still coming
  int request_deadline_millis = 60000;  // a request trickling in byte by byte ends here
  int send_timeout_millis = 5000;       // a peer that takes nothing of its answer for this long
  int linger_millis = 2000;             // draining the peer after the answer
  // Connections of one peer still sending their request; a newer one closes the
  // oldest, so a flood of half-sent requests cannot lock anybody out.
  int idle_per_peer = 4096;
  // Unsent output per WebSocket before its senders wait.
  std::size_t websocket_queue_bytes = 1 << 20;
  int max_workers = 256;  // handlers at once (a long poll holds one)
};

struct ServerOptions {
  std::uint16_t port = 9999;
  // "127.0.0.1" keeps the port private to this machine; "0.0.0.0" opens it, and
  // then the loopback rule guards every private route.
  std::string listen_address = "127.0.0.1";
  // The home's token (home_token.hpp); every private route and WebSocket needs it.
  // Empty: nobody gets past the public routes.
  std::string token;
  ExecBridge exec;                           // empty: the interpreter routes answer 503
  std::map<std::string, ViewHandler> views;  // missing: the route answers 503
  std::function<void()> on_shutdown;         // called after "/shutdown" has been answered
  // Folders holding web/ and docs/manual/, searched in order.
  std::vector<std::filesystem::path> asset_roots;
  ChatPaths chat;
  int bind_retry_millis = 120000;
  ServerLimits limits;
};

struct ServerState;

class Server {
 public:
  explicit Server(ServerOptions options);
  ~Server();
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  // Binds (retrying while the port is busy), listens and runs the accept loop.
  // Returns 1 when the port could not be served, 0 after stop().
  int serve();
  // Ends the loop: the listener and every connection close, handlers under way
  // finish with nobody to answer.
  void stop();

  enum class Phase { kStarting, kListening, kFailed, kStopped };
  Phase phase() const;
  // The port actually bound (differs from the option when that was 0); 0 before.
  std::uint16_t bound_port() const;
  // Connections being served right now (HTTP and WebSocket).
  int active_connections() const;

 private:
  std::shared_ptr<ServerState> state_;
};

}  // namespace kx::server
