#include "launcher/kxterm.hpp"

#include <atomic>
#include <chrono>
#include <cstdio>
#include <iostream>
#include <mutex>
#include <random>
#include <thread>

#include "launcher/key_filter.hpp"
#include "launcher/resident_lifecycle.hpp"
#include "launcher/term_link.hpp"
#include "platform/console.hpp"
#include "platform/raw_console.hpp"
#include "server/websocket_frame.hpp"

namespace kx::launcher {
namespace {

using Clock = std::chrono::steady_clock;
constexpr auto kPollInterval = std::chrono::milliseconds(80);
// With redirected input, output still arriving after the last line is shown until
// the session has been quiet this long.
constexpr auto kQuietAfterInput = std::chrono::milliseconds(600);

std::mutex output_lock;

void print(const std::string& text) {
  std::lock_guard guard(output_lock);
  std::fwrite(text.data(), 1, text.size(), stdout);
  std::fflush(stdout);
}

std::int64_t now_millis() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now().time_since_epoch())
      .count();
}

std::string attach_line(const std::string& id, bool raw) {
  return "[kxterm " + id + " attached — ::detach leaves it running, ::close kills it, ::list " +
         "lists sessions" + (raw ? ", Ctrl-] detaches" : "") + "]\n";
}

std::string detached_line(const std::string& id) {
  return "\n[detached — " + id + " still running; reattach: kx kxterm " + id + "]\n";
}

bool list_sessions(TermLink& link) {
  auto answer = link.request("GET", "/term/list");
  if (!answer) return false;
  print(answer->body + "\n");
  return true;
}

bool close_session(TermLink& link, const std::string& id) {
  if (!link.request("POST", "/term/close?id=" + url_encode(id))) return false;
  print("\n[closed " + id + "]\n");
  return true;
}

// Line by line: each line typed (with a carriage return), output polled.
int attach_lines(TermLink& link, const std::string& id) {
  print(attach_line(id, false));
  std::atomic<bool> stop{false};
  std::atomic<bool> ended{false};
  std::atomic<std::int64_t> last_output{now_millis()};
  std::thread poller([&] {
    std::uint64_t since = 0;
    while (!stop) {
      auto answer = link.request(
          "GET", "/term/read?id=" + url_encode(id) + "&since=" + std::to_string(since));
      if (answer) {
        std::string data = json_string_field(answer->body, "data").value_or("");
        if (!data.empty()) {
          print(data);
          last_output = now_millis();
        }
        since = json_number_field(answer->body, "len").value_or(since);
      }
      if (!answer || answer->body.find("\"alive\":true") == std::string::npos) {
        print("\n[session ended]\n");
        ended = true;
        return;
      }
      std::this_thread::sleep_for(kPollInterval);
    }
  });
  auto finish = [&](int status) {
    stop = true;
    poller.join();
    return status;
  };

  std::string line;
  while (!ended && std::getline(std::cin, line)) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (line == "::detach" || line == "::quit") {
      print(detached_line(id));
      return finish(0);
    }
    if (line == "::close") {
      if (!close_session(link, id)) print("\n[kxterm: server unreachable — detaching]\n");
      return finish(0);
    }
    if (line == "::list") {
      list_sessions(link);
      continue;
    }
    if (!link.request("POST",
                      "/term/send?id=" + url_encode(id) + "&data=" + url_encode(line + "\r"))) {
      print("\n[kxterm: server unreachable — detaching]\n");
      return finish(1);
    }
    last_output = now_millis();
  }
  // End of input: let the output of the last lines arrive first.
  while (!ended &&
         now_millis() - last_output.load() < std::chrono::milliseconds(kQuietAfterInput).count())
    std::this_thread::sleep_for(kPollInterval);
  if (!ended) print(detached_line(id));
  return finish(0);
}

// One WebSocket to the session: output frames straight to the console, keys and
// size changes back.
class RawAttachment {
 public:
  RawAttachment(TermLink& link, std::string id) : link_(link), id_(std::move(id)) {}

  int run() {
    std::string leftover;
    auto socket = link_.open_socket("/term/ws?id=" + url_encode(id_) + "&from=0", leftover);
    if (!socket) {
      print("kxterm: server unreachable\n");
      return 1;
    }
    socket_ = &*socket;
    print(attach_line(id_, true));
    int status = 0;
    {
      platform::RawConsole raw;
      std::thread reader([this, &leftover] { read_frames(std::move(leftover)); });
      status = pump_keys();
      platform::shutdown_both(*socket_);
      reader.join();
    }
    if (ended_ && outcome_.empty()) print("\n[session ended]\n");
    if (!outcome_.empty()) print(outcome_);
    return status;
  }

 private:
  bool send(int opcode, std::string_view payload) {
    std::lock_guard guard(send_lock_);
    return platform::send_all(*socket_, server::encode_client_frame(opcode, payload, mask_()));
  }

  void send_size() {
    int cols = 0, rows = 0;
    if (!platform::console_size(cols, rows) || (cols == cols_ && rows == rows_)) return;
    cols_ = cols;
    rows_ = rows;
    send(server::kBinaryFrame, R"({"type":"resize","cols":)" + std::to_string(cols) +
                                   ",\"rows\":" + std::to_string(rows) + "}");
  }

  void read_frames(std::string buffer) {
    server::MessageAssembler assembler;
    for (;;) {
      server::Frame frame;
      std::size_t consumed = 0;
      auto status = server::parse_frame(buffer, frame, consumed);
      if (status == server::FrameStatus::kNeedMore) {
        char chunk[65536];
        long n = platform::receive_some(*socket_, chunk, sizeof chunk);
        if (n <= 0) break;
        buffer.append(chunk, static_cast<std::size_t>(n));
        continue;
      }
      if (status == server::FrameStatus::kTooLarge) break;
      buffer.erase(0, consumed);
      auto action = assembler.feed(std::move(frame));
      if (action.kind == server::FrameAction::kClose) break;
      if (action.kind == server::FrameAction::kPong) send(server::kPong, action.data);
      if (action.kind != server::FrameAction::kMessage) continue;
      if (action.binary) {
        std::lock_guard guard(output_lock);
        platform::write_console(action.data.data(), action.data.size());
      } else if (action.data.find("\"type\":\"ended\"") != std::string::npos) {
        ended_ = true;
      }
    }
    gone_ = true;
  }

  int pump_keys() {
    KeyFilter filter;
    send_size();
    char keys[4096];
    while (!gone_) {
      KeyFilter::Step step;
      if (platform::wait_for_input(100)) {
        std::size_t n = platform::read_stdin(keys, sizeof keys);
        if (n == 0) return 0;
        step = filter.feed(std::string_view(keys, n), now_millis());
      } else {
        step = filter.tick(now_millis());
        send_size();  // a window change shows up here within the wait
      }
      if (!step.echo.empty()) print(step.echo);
      if (!step.to_session.empty() && !send(server::kTextFrame, step.to_session)) {
        outcome_ = "\n[kxterm: server unreachable — detaching]\n";
        return 1;
      }
      switch (step.command) {
        case KeyFilter::Command::kNone:
          break;
        case KeyFilter::Command::kDetach:
          outcome_ = detached_line(id_);
          return 0;
        case KeyFilter::Command::kClose:
          // Stop reading first: the end of a session we close is not news.
          platform::shutdown_both(*socket_);
          if (!link_.request("POST", "/term/close?id=" + url_encode(id_))) {
            outcome_ = "\n[kxterm: server unreachable — detaching]\n";
            return 1;
          }
          outcome_ = "\n[closed " + id_ + "]\n";
          return 0;
        case KeyFilter::Command::kList:
          if (auto answer = link_.request("GET", "/term/list")) print(answer->body + "\r\n");
          break;
      }
    }
    return 0;
  }

  TermLink& link_;
  std::string id_;
  platform::Socket* socket_ = nullptr;
  std::mutex send_lock_;
  std::mt19937 mask_{std::random_device{}()};
  std::atomic<bool> gone_{false};
  std::atomic<bool> ended_{false};
  std::string outcome_;
  int cols_ = 0, rows_ = 0;
};

int attach(TermLink& link, const std::string& id) {
  auto first = link.request("GET", "/term/read?id=" + url_encode(id) + "&since=0");
  if (!first) {
    print("kxterm: server unreachable\n");
    return 1;
  }
  if (first->body.find("\"ok\":true") == std::string::npos) {
    print("kxterm: no such session " + id + " (kx kxterm list)\n");
    return 1;
  }
  if (platform::stdin_is_terminal()) return RawAttachment(link, id).run();
  return attach_lines(link, id);
}

int open_and_attach(TermLink& link, const std::string& command) {
  int cols = 0, rows = 0;
  if (platform::stdin_is_terminal()) platform::console_size(cols, rows);
  auto answer = link.request("POST", "/term/open",
                             "cmd=" + url_encode(command) + "&cols=" + std::to_string(cols) +
                                 "&rows=" + std::to_string(rows));
  if (!answer) {
    print("kxterm: server unreachable\n");
    return 1;
  }
  auto id = json_string_field(answer->body, "id");
  if (!id) {
    print("kxterm: open failed: " +
          json_string_field(answer->body, "error").value_or(answer->body) + "\n");
    return 1;
  }
  return attach(link, *id);
}

}  // namespace

int run_kxterm(std::uint16_t port, const std::vector<std::string>& args) {
  if (probe(port).health != Health::kCompatible) {
    print("kxterm: no Kestrune resident on port " + std::to_string(port) +
          " (start one: kx gui)\n");
    return 1;
  }
  TermLink link(port);
  const std::string first = args.empty() ? std::string() : args[0];
  if (first == "list" || first == "ls") {
    if (list_sessions(link)) return 0;
    print("kxterm: server unreachable\n");
    return 1;
  }
  if (first == "run") {
    std::string command;
    for (std::size_t i = 1; i < args.size(); ++i) command += (i > 1 ? " " : "") + args[i];
    return open_and_attach(link, command);
  }
  if (first.starts_with("t")) return attach(link, first);
  return open_and_attach(link, "");
}

}  // namespace kx::launcher
