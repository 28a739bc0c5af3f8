// Files served from beside the executable. Each asset root (the executable's
// directory first) may hold web/ and docs/manual/; the build copies the repo's
// web/ next to kx, an installation puts it under share/kestrune/.
#include <fstream>
#include <sstream>

#include "server/access.hpp"
#include "server/json_escape.hpp"
#include "server/routes.hpp"
#include "server/server_state.hpp"

namespace kx::server {
namespace {

namespace fs = std::filesystem;

std::optional<std::string> read_file(const fs::path& file) {
  std::error_code ec;
  if (!fs::is_regular_file(file, ec)) return std::nullopt;
  std::ifstream in(file, std::ios::binary);
  if (!in) return std::nullopt;
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

// The first root under which `relative` is a readable file.
std::optional<std::string> find_asset(const ServerState& state, const fs::path& relative) {
  for (const auto& root : state.options.asset_roots)
    if (auto text = read_file(root / relative)) return text;
  return std::nullopt;
}

// A request path may only name files below its folder: no "..", no absolute
// parts, no backslashes, no NUL.
bool safe_relative(std::string_view name) {
  if (name.empty() || name.front() == '/') return false;
  if (name.find('\\') != std::string_view::npos || name.find('\0') != std::string_view::npos)
    return false;
  for (const auto& part : fs::path(std::string(name)))
    if (part == ".." || part == ".") return false;
  return true;
}

const char* content_type_for(const fs::path& file) {
  std::string ext = file.extension().string();
  if (ext == ".html") return kHtml;
  if (ext == ".js") return kJavascript;
  if (ext == ".css") return kCss;
  if (ext == ".json") return kJson;
  return kTextUtf8;
}

std::vector<fs::path> manual_pages(const ServerState& state, fs::path& dir_out) {
  std::vector<fs::path> pages;
  for (const auto& root : state.options.asset_roots) {
    fs::path dir = root / "docs" / "manual";
    std::error_code ec;
    if (!fs::is_directory(dir, ec)) continue;
    dir_out = dir;
    for (fs::directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec))
      if (it->path().extension() == ".md") pages.push_back(it->path());
    break;
  }
  std::sort(pages.begin(), pages.end());
  return pages;
}

std::string page_title(const fs::path& page) {
  std::ifstream in(page, std::ios::binary);
  std::string line;
  while (std::getline(in, line)) {
    if (line.starts_with("# ")) {
      if (!line.empty() && line.back() == '\r') line.pop_back();
      return line.substr(2);
    }
  }
  return page.stem().string();
}

}  // namespace

Response handle_index(ServerState& state, const Request&, RouteEffects&) {
  for (const char* candidate : {"src/index.html", "index.html", "web/index.html"})
    if (auto text = find_asset(state, candidate)) return {"200 OK", kHtml, *text};
  return text_response("404 Not Found", "not found");
}

Response handle_ui(ServerState& state, const Request& request, RouteEffects&) {
  if (has_form_param(request.query, "token")) return ui_login(request, state.options.token);
  std::string name = request.path == "/ui" || request.path == "/ui/" ? std::string("shell.html")
                                                                     : request.path.substr(4);
  if (!safe_relative(name)) return text_response("404 Not Found", "no such ui file");
  fs::path relative = fs::path("web") / "ui" / name;
  if (auto text = find_asset(state, relative)) return {"200 OK", content_type_for(relative), *text};
  return text_response("404 Not Found", "no such ui file");
}

Response handle_manual_list(ServerState& state, const Request&, RouteEffects&) {
  fs::path dir;
  std::string body = "{\"ok\":true,\"pages\":[";
  bool first = true;
  for (const auto& page : manual_pages(state, dir)) {
    if (!first) body += ',';
    first = false;
    body += "{\"name\":" + json_string(page.stem().string()) +
            ",\"title\":" + json_string(page_title(page)) + "}";
  }
  return ok_json(body + "]}");
}

Response handle_manual_page(ServerState& state, const Request& request, RouteEffects&) {
  std::string name = form_param(request.query, "name");
  fs::path dir;
  manual_pages(state, dir);
  if (!name.empty() && safe_relative(name) && name.find('/') == std::string::npos && !dir.empty())
    if (auto text = read_file(dir / (name + ".md"))) return {"200 OK", kMarkdown, *text};
  return text_response("404 Not Found", "no such manual page: " + name);
}

}  // namespace kx::server
