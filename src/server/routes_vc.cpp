// The store's routes: thin layers over the same commands a person types, run for
// the "panel" seat (the browser is a human seat), plus the read-only views.
#include <algorithm>
#include <filesystem>

#include "server/access.hpp"
#include "server/json_escape.hpp"
#include "server/routes.hpp"
#include "server/server_state.hpp"

namespace kx::server {
namespace {

namespace fs = std::filesystem;

constexpr const char* kPanel = "panel";

Response missing(const char* what) {
  return json_response("400 Bad Request",
                       std::string("{\"ok\":false,\"error\":\"") + what + " required\"}");
}

// A value inside an element argument (<path>..</path>) or quotes must not end it early.
bool fits_element(const std::string& value) {
  return value.find_first_of("<\"\n\r") == std::string::npos;
}

Response bad_value(const char* what) {
  return json_response("400 Bad Request",
                       std::string("{\"ok\":false,\"error\":\"bad ") + what + "\"}");
}

}  // namespace

Response handle_vc_dirs(ServerState& state, const Request& request, RouteEffects&) {
  std::string asked = param(request, "path");
  fs::path dir = asked.empty() ? user_data(state).parent_path() : fs::path(asked);
  std::error_code ec;
  if (dir.is_relative() || !fs::is_directory(dir, ec))
    return json_response("404 Not Found", "{\"ok\":false,\"error\":" +
                                              json_string("no such directory: " + asked) + "}");
  dir = fs::weakly_canonical(dir, ec);
  std::vector<std::string> names;
  for (fs::directory_iterator it(dir, fs::directory_options::skip_permission_denied, ec), end;
       !ec && it != end; it.increment(ec)) {
    std::error_code kind;
    std::string name = it->path().filename().string();
    // Hidden folders (the home's own among them) are noise when choosing a project.
    if (name.starts_with('.') || !it->is_directory(kind)) continue;
    names.push_back(std::move(name));
  }
  std::sort(names.begin(), names.end());
  std::string body = "{\"ok\":true,\"path\":" + json_string(dir.string()) +
                     ",\"parent\":" + json_string(dir.parent_path().string()) + ",\"dirs\":[";
  for (std::size_t i = 0; i < names.size(); ++i) body += (i ? "," : "") + json_string(names[i]);
  return ok_json(body + "]}");
}

Response handle_vc_add(ServerState& state, const Request& request, RouteEffects&) {
  std::string dir = param(request, "dir");
  if (dir.empty()) return missing("dir");
  std::string flags = param(request, "flags");
  if (!fits_element(dir) || flags.find('\n') != std::string::npos) return bad_value("dir");
  std::string line = "Kestrune EnrollVersionControl \"" + dir + "\"";
  if (!flags.empty()) line += " " + flags;
  return command_answer(run_command(state, kPanel, line, "/vc/add"));
}

Response handle_vc_unenroll(ServerState& state, const Request& request, RouteEffects&) {
  std::string dir = param(request, "dir");
  if (dir.empty()) return missing("dir");
  if (!fits_element(dir)) return bad_value("dir");
  return command_answer(run_command(state, kPanel, "unenroll \"" + dir + "\"", "/vc/unenroll"));
}

// The pending emits, with each one's number picked out so a page can offer approval
// without reading the text.
Response handle_vc_pending(ServerState& state, const Request&, RouteEffects&) {
  auto out = run_command(state, kPanel, "fsvctl:emitlist", "/vc/pending");
  if (!out || out->starts_with("ERROR")) return command_answer(out);
  std::string emits;
  std::size_t at = 0;
  while (at < out->size()) {
    std::size_t end = out->find('\n', at);
    if (end == std::string::npos) end = out->size();
    std::string_view line(out->data() + at, end - at);
    at = end + 1;
    std::size_t hash = line.find_first_not_of(' ');
    if (hash == std::string_view::npos || line[hash] != '#') continue;
    std::uint64_t number = 0;
    std::size_t i = hash + 1;
    while (i < line.size() && line[i] >= '0' && line[i] <= '9' && number < 1000000000)
      number = number * 10 + static_cast<std::uint64_t>(line[i++] - '0');
    if (i == hash + 1) continue;
    if (!emits.empty()) emits += ',';
    emits += "{\"number\":" + std::to_string(number) +
             ",\"text\":" + json_string(line.substr(hash)) + "}";
  }
  return ok_json("{\"ok\":true,\"out\":" + json_string(*out) + ",\"emits\":[" + emits + "]}");
}

Response handle_vc_emit(ServerState& state, const Request& request, RouteEffects&) {
  std::string path = param(request, "path");
  std::string asof = param(request, "asof");
  std::string bot = param(request, "bot");
  if (!fits_element(path) || !fits_element(asof)) return bad_value("path or asof");
  std::string line = "fsvctl:emit <path>" + (path.empty() ? std::string("/") : path) + "</path>";
  if (!asof.empty()) line += "<asof>" + asof + "</asof>";
  return command_answer(run_command(state, bot.empty() ? kPanel : bot, line, "/vc/emit"));
}

Response handle_vc_approve(ServerState& state, const Request& request, RouteEffects&) {
  std::string number = param(request, "number");
  if (number.empty()) return missing("number");
  if (number.find_first_not_of("0123456789") != std::string::npos) return bad_value("number");
  std::string mode = param(request, "mode");
  std::string dest = param(request, "dest");
  if (!fits_element(mode) || !fits_element(dest)) return bad_value("mode or dest");
  std::string line =
      "fsvctl:emitcommit " + number + " <mode>" + (mode.empty() ? "A" : mode) + "</mode>";
  if (!dest.empty()) line += "<dest>" + dest + "</dest>";
  // Approval is the human act the emit waits for: always the panel's seat.
  return command_answer(
      run_command(state, kPanel, line, "/vc/approve", person_behind(request, state.options.token)));
}

Response handle_view(ServerState& state, const Request& request, RouteEffects&) {
  auto view = state.options.views.find(request.path);
  if (view == state.options.views.end()) {
    if (request.path.starts_with("/store/") && !state.options.views.empty())
      return text_response("404 Not Found", "not found");
    return json_response("503 Service Unavailable", R"({"ok":false,"error":"bridge"})");
  }
  return view->second(request);
}

}  // namespace kx::server
