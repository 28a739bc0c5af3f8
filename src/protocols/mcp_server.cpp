#include "protocols/mcp_server.hpp"

#include <cstdlib>

#include "lang/text.hpp"

namespace kx::protocols {
namespace {

using Error = nlohmann::detail::exception;

constexpr int kParseError = -32700;
constexpr int kInvalidRequest = -32600;
constexpr int kMethodNotFound = -32601;
constexpr int kInvalidParams = -32602;

// Invalid UTF-8 in a file's text must not break the reply: it is replaced.
std::string dump(const Json& value) {
  return value.dump(-1, ' ', false, Json::error_handler_t::replace);
}

Json error_reply(const Json& id, int code, const std::string& message) {
  return Json{{"jsonrpc", "2.0"}, {"id", id}, {"error", {{"code", code}, {"message", message}}}};
}

// A failure that becomes a JSON-RPC error reply.
struct RpcError {
  int code;
  std::string message;
};

std::string run(const ToolHost& host, const std::string& line) {
  return host.run ? host.run(line) : "ERROR: mcp: interpreter bridge not wired";
}

std::string param_text(const Json& params, const char* key) {
  return arg_text(params, key);
}

// The lines of a listing after its "OK: " header.
std::vector<std::string> body_lines(const std::string& text) {
  std::vector<std::string> lines;
  if (!text.starts_with("OK")) return lines;
  std::size_t pos = text.find('\n');
  while (pos != std::string::npos) {
    std::size_t next = text.find('\n', pos + 1);
    std::string line = text.substr(pos + 1, next == std::string::npos ? next : next - pos - 1);
    if (!lang::trim(line).empty()) lines.push_back(line);
    pos = next;
  }
  return lines;
}

// Paths of the active store's live files ("  f  v3\tsrc/a.cpp" lines).
std::vector<std::string> file_paths(const ToolHost& host, const std::string& glob = "") {
  std::vector<std::string> paths;
  for (const std::string& line : body_lines(run(host, "fsstat:paths " + glob))) {
    std::size_t tab = line.find('\t');
    if (tab == std::string::npos || lang::trim(line).starts_with("t ")) continue;
    paths.push_back(line.substr(tab + 1));
  }
  return paths;
}

// Memory context names ("  notes  3 topic(s), ..." lines).
std::vector<std::string> context_names(const ToolHost& host) {
  std::vector<std::string> names;
  for (const std::string& line :
       body_lines(run(host, std::string("memory.contexts ") + kMemoryBot))) {
    std::string_view rest = lang::trim(line);
    std::size_t gap = rest.find("  ");
    names.emplace_back(rest.substr(0, gap));
  }
  return names;
}

Json initialize(const Json& params) {
  std::string asked = param_text(params, "protocolVersion");
  std::string version = is_supported_protocol_version(asked) ? asked : kProtocolVersions[0];
  return Json{{"protocolVersion", version},
              {"capabilities",
               {{"tools", {{"listChanged", false}}},
                {"resources", {{"subscribe", false}, {"listChanged", false}}},
                {"prompts", {{"listChanged", false}}},
                {"logging", Json::object()},
                {"completions", Json::object()}}},
              {"serverInfo", {{"name", "Kestrune-mcp"}, {"version", "1.0.0"}}},
              {"instructions", mcp_instructions()}};
}

Json tools_list() {
  Json list = Json::array();
  for (const Tool& tool : tools()) {
    list.push_back(Json{{"name", tool.name},
                        {"title", tool.title},
                        {"description", tool.description},
                        {"inputSchema", tool.input_schema},
                        {"annotations",
                         {{"title", tool.title},
                          {"readOnlyHint", tool.read_only},
                          {"destructiveHint", tool.destructive},
                          {"idempotentHint", tool.idempotent},
                          {"openWorldHint", false}}}});
  }
  return Json{{"tools", std::move(list)}};
}

Json text_result(const std::string& text) {
  return Json{{"content", Json::array({Json{{"type", "text"}, {"text", text}}})},
              {"isError", text.starts_with("ERROR:")}};
}

Json tools_call(const Json& params, const ToolHost& host) {
  std::string name = param_text(params, "name");
  const Tool* tool = find_tool(name);
  if (tool == nullptr) return text_result("ERROR: unknown tool '" + name + "' — call tools/list");
  Json args =
      params.is_object() && params.contains("arguments") ? params["arguments"] : Json::object();
  if (!args.is_object()) throw RpcError{kInvalidParams, "arguments must be an object"};
  return text_result(tool->call(args, host));
}

std::size_t cursor_of(const Json& params) {
  std::string cursor = param_text(params, "cursor");
  if (cursor.empty()) return 0;
  if (!lang::is_integer(cursor) || cursor.starts_with("-"))
    throw RpcError{kInvalidParams, "invalid cursor: " + cursor};
  return std::strtoull(cursor.c_str(), nullptr, 10);
}

Json resources_list(const Json& params, const ToolHost& host) {
  Json all = Json::array();
  for (const std::string& path : file_paths(host))
    all.push_back(Json{{"uri", "kst:///file/" + path}, {"name", path}, {"mimeType", "text/plain"}});
  for (const std::string& context : context_names(host))
    all.push_back(Json{{"uri", "kst:///ctx/" + context},
                       {"name", "memory context " + context},
                       {"mimeType", "text/plain"}});
  std::size_t from = cursor_of(params);
  Json page = Json::array();
  for (std::size_t i = from; i < all.size() && i < from + kResourcePage; ++i)
    page.push_back(all[i]);
  Json out{{"resources", std::move(page)}};
  if (from + kResourcePage < all.size()) out["nextCursor"] = std::to_string(from + kResourcePage);
  return out;
}

Json resource_templates() {
  auto entry = [](const char* uri, const char* name) {
    return Json{{"uriTemplate", uri}, {"name", name}, {"mimeType", "text/plain"}};
  };
  return Json{
      {"resourceTemplates", Json::array({entry("kst:///file/{path}", "versioned file"),
                                         entry("kst:///ctx/{context}", "memory context (topics)"),
                                         entry("kst:///ctx/{context}/{topic}", "memo topic"),
                                         entry("kst:///query/{expr}", "file query (glob)")})}};
}

Json resources_read(const Json& params, const ToolHost& host) {
  std::string uri = param_text(params, "uri");
  std::string text;
  std::string_view rest = uri;
  if (rest.starts_with("kst:///file/")) {
    // The current text; fsvctl:open here wants a version number.
    text = run(host, "fs:cat <path>" + std::string(rest.substr(12)) + "</path>");
  } else if (rest.starts_with("kst:///ctx/") && rest.size() > 11) {
    rest.remove_prefix(11);
    std::size_t slash = rest.find('/');
    std::string context(rest.substr(0, slash));
    Json args{{"context", context}};
    if (slash == std::string_view::npos) {
      text = find_tool("memory_browse")->call(args, host);
    } else {
      args["topic"] = std::string(rest.substr(slash + 1));
      text = find_tool("memory_retrieve")->call(args, host);
    }
  } else if (rest.starts_with("kst:///query/")) {
    text = find_tool("kst_query")->call(Json{{"expr", std::string(rest.substr(13))}}, host);
  } else if (rest == "kst:///turns") {
    text = run(host, "fssys:turns");
  } else {
    throw RpcError{kInvalidParams, "unknown resource uri: " + uri};
  }
  return Json{
      {"contents", Json::array({Json{{"uri", uri}, {"mimeType", "text/plain"}, {"text", text}}})}};
}

// Stored action records: "action_<name>.md" files of the active store.
std::vector<std::string> action_names(const ToolHost& host) {
  std::vector<std::string> names;
  for (const std::string& path : file_paths(host, "action_*.md")) {
    std::string_view base = path;
    if (auto slash = base.rfind('/'); slash != std::string_view::npos)
      base.remove_prefix(slash + 1);
    if (base.starts_with("action_") && base.ends_with(".md"))
      names.emplace_back(base.substr(7, base.size() - 10));
  }
  return names;
}

Json prompts_list(const ToolHost& host) {
  Json list = Json::array();
  list.push_back(
      Json{{"name", "kst_manual"},
           {"description",
            "The generated Kestrune command manual (every capability, self-documenting)."}});
  for (const std::string& name : action_names(host))
    list.push_back(Json{{"name", "action_" + name},
                        {"description", "stored action record (replayable command sequence)"}});
  return Json{{"prompts", std::move(list)}};
}

Json prompts_get(const Json& params, const ToolHost& host) {
  std::string name = param_text(params, "name");
  std::string text, description;
  if (name == "kst_manual" || name == "kst.manual") {
    description = "The generated Kestrune command manual";
    text = run(host, "fssys:help");
  } else if (name.starts_with("action_")) {
    description = "stored action record " + name.substr(7);
    text = run(host, "fs:cat <path>" + name + ".md</path>");
    if (text.starts_with("ERROR")) throw RpcError{kInvalidParams, "unknown prompt: " + name};
  } else {
    throw RpcError{kInvalidParams, "unknown prompt: " + name};
  }
  return Json{
      {"description", description},
      {"messages",
       Json::array({Json{{"role", "user"}, {"content", {{"type", "text"}, {"text", text}}}}})}};
}

Json completion(const Json& params, const ToolHost& host) {
  std::string arg = params.is_object() && params.contains("argument")
                        ? param_text(params["argument"], "name")
                        : "";
  std::string prefix = params.is_object() && params.contains("argument")
                           ? param_text(params["argument"], "value")
                           : "";
  std::vector<std::string> candidates;
  if (arg == "context") candidates = context_names(host);
  if (arg == "path") candidates = file_paths(host);
  Json values = Json::array();
  std::size_t total = 0;
  for (const std::string& c : candidates) {
    if (!c.starts_with(prefix)) continue;
    if (total++ < kMaxCompletions) values.push_back(c);
  }
  return Json{
      {"completion",
       {{"values", std::move(values)}, {"total", total}, {"hasMore", total > kMaxCompletions}}}};
}

Json dispatch(const std::string& method, const Json& params, const ToolHost& host) {
  if (method == "initialize") return initialize(params);
  if (method == "ping" || method == "logging/setLevel" || method == "resources/subscribe" ||
      method == "resources/unsubscribe")
    return Json::object();
  if (method == "tools/list") return tools_list();
  if (method == "tools/call") return tools_call(params, host);
  if (method == "resources/list") return resources_list(params, host);
  if (method == "resources/templates/list") return resource_templates();
  if (method == "resources/read") return resources_read(params, host);
  if (method == "prompts/list") return prompts_list(host);
  if (method == "prompts/get") return prompts_get(params, host);
  if (method == "completion/complete") return completion(params, host);
  throw RpcError{kMethodNotFound, "method not found: " + method};
}

// One message; a null Json when nothing is to be answered.
Json handle_one(const Json& message, const ToolHost& host) {
  if (!message.is_object()) return error_reply(nullptr, kInvalidRequest, "invalid request");
  Json id = message.contains("id") ? message["id"] : Json(nullptr);
  auto method = message.find("method");
  if (method == message.end()) {
    // A client's response to a request of ours: nothing to answer.
    if (message.contains("result") || message.contains("error")) return nullptr;
    return error_reply(id, kInvalidRequest, "invalid request: missing method");
  }
  if (!method->is_string()) return error_reply(id, kInvalidRequest, "invalid request: method");
  std::string name = method->get<std::string>();
  if (name.starts_with("notifications/")) return nullptr;
  // Without an id the request is a notification: run it, answer nothing.
  bool answer = message.contains("id");
  Json reply;
  try {
    Json params = message.contains("params") ? message["params"] : Json::object();
    reply = Json{{"jsonrpc", "2.0"}, {"id", id}, {"result", dispatch(name, params, host)}};
  } catch (const RpcError& e) {
    reply = error_reply(id, e.code, e.message);
  } catch (const std::exception& e) {
    reply = error_reply(id, kInvalidParams, std::string("invalid params: ") + e.what());
  }
  return answer ? reply : Json(nullptr);
}

}  // namespace

bool is_supported_protocol_version(std::string_view version) {
  for (const char* v : kProtocolVersions)
    if (version == v) return true;
  return false;
}

std::string McpServer::handle(std::string_view message) const {
  Json parsed;
  try {
    parsed = Json::parse(message);
  } catch (const Error&) {
    return dump(error_reply(nullptr, kParseError, "parse error"));
  }
  if (parsed.is_array()) {
    if (parsed.empty()) return dump(error_reply(nullptr, kInvalidRequest, "invalid request"));
    Json replies = Json::array();
    for (const Json& one : parsed) {
      Json reply = handle_one(one, host_);
      if (!reply.is_null()) replies.push_back(std::move(reply));
    }
    return replies.empty() ? std::string() : dump(replies);
  }
  Json reply = handle_one(parsed, host_);
  return reply.is_null() ? std::string() : dump(reply);
}

bool needs_no_tools(std::string_view message) {
  Json parsed = Json::parse(message, nullptr, false);
  if (!parsed.is_object() || !parsed.contains("method") || !parsed["method"].is_string())
    return false;
  const std::string& method = parsed["method"].get_ref<const std::string&>();
  return method == "initialize" || method == "ping" || method.starts_with("notifications/");
}

std::string error_reply_for(std::string_view message, int code, const std::string& text) {
  Json parsed = Json::parse(message, nullptr, false);
  if (!parsed.is_object() || !parsed.contains("id") || !parsed.contains("method")) return {};
  return dump(error_reply(parsed["id"], code, text));
}

const std::string& mcp_instructions() {
  static const std::string text =
      "Kestrune — an LLM-native workspace with THREE storage classes.\n"
      "1. Versioned files: every fs_write/fs_edit saves a numbered version; nothing is lost. "
      "Read with fs_read (offset/limit page big files), change with fs_edit (one exact "
      "replacement) or fs_write (whole file). History: vc_log, vc_diff, vc_open_version, "
      "vc_revert. Find: fs_list (glob), grep (regex, in RAM).\n"
      "2. Memory: per context, topics holding memos that persist across sessions. At the start "
      "of a task call memory_contexts and memory_browse; save decisions and lessons with "
      "memory_addmemo (props such as decision|lesson) or memory_add (replaces the topic); "
      "recall with memory_retrieve or memory_keywords.\n"
      "3. Commands: kst_run runs any Kestrune command line (fssys:help is the manual; prompt "
      "kst_manual holds it too).\n"
      "Paths are relative to the active store (kst_stores lists them; kst_enroll adds a "
      "directory). Results beginning ERROR: say what to do instead.";
  return text;
}

}  // namespace kx::protocols
