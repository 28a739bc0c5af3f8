// The plain-language entry: turns "Kestrune: <what you want>" into a structured
// command, or answers it directly (directory words, help, guided mode).
#include <string>

#include "lang/intents.hpp"
#include "lang/interpreter.hpp"
#include "lang/result.hpp"
#include "lang/shell_passthrough.hpp"
#include "lang/text.hpp"
#include "platform/shell.hpp"

namespace kx::lang {
namespace {

constexpr const char* kMetacharacterRefusal =
    "ERROR: shell metacharacters aren't natural language — structured verbs use their namespace "
    "(memory.addmemo <botid>, <context>, ...; fs:/fsvctl:/... — see help), shell pipelines need "
    "a real command first (or the explicit '! <cmd>' raw passthrough), and file bodies with pipes "
    "ride a <![CDATA[...]]> block.";

bool is_help_word(std::string_view word) {
  return word == "help" || word == "commands" || word == "man" || word == "manifest";
}

// A first word that is itself a structured command: "fs:cat", "memory.add",
// "fsvctl.log" (a file family written with a full stop).
std::optional<std::string> as_structured(const Session& session, std::string_view text) {
  auto [head, args] = split_first_word(text);
  if (head.find(':') != std::string_view::npos) return std::string(text);
  if (head == "memory" || head.starts_with("memory.") || head == "bots" ||
      head.starts_with("bots."))
    return std::string(text);
  std::size_t dot = head.find('.');
  if (dot != std::string_view::npos && dot + 1 < head.size()) {
    const Family* family = session.registry.find_family(head.substr(0, dot));
    if (family != nullptr && family->separator == ':') {
      std::string line = std::string(head.substr(0, dot)) + ":" + std::string(head.substr(dot + 1));
      if (!args.empty()) line += " " + std::string(args);
      return line;
    }
  }
  return std::nullopt;
}

std::string guided_answer(Session& session, std::string_view rest) {
  std::string word = to_lower(first_word(trim(rest)));
  if (word == "off" || word == "stop" || word == "disable" || word == "quiet" || word == "hide" ||
      word == "silence") {
    session.guided = false;
    return "OK: guided mode OFF — no more next-step tips.";
  }
  if (word == "on" || word == "start" || word == "enable" || word == "show") {
    session.guided = true;
    return "OK: guided mode ON — next-step tips will follow each action.";
  }
  return std::string("OK: guided mode is ") + (session.guided ? "ON" : "OFF") +
         " — say 'Kestrune guided on' or 'Kestrune guided off'.";
}

}  // namespace

std::string natural(Session& session, std::string_view text) {
  text = trim(text);
  if (text.empty()) return "ERROR: empty query (try: Kestrune:help)";
  // "Kestrune memory.contexts" and "Kestrune help": the product's name is a greeting.
  if (auto name = to_lower(first_word(text)); name == "kestrune" || name == "kst" || name == "nl") {
    text = split_first_word(text).second;
    if (text.empty()) return help(session.registry, "");
  }

  if (auto line = as_structured(session, text)) return dispatch(session, *line);
  auto [first, rest] = split_first_word(text);
  if (session.registry.find_word_command(first) != nullptr)
    return run_word_command(session, first, rest);
  if (text.starts_with('!')) return "OK: shell output:\n" + run_shell_text(session, text.substr(1));
  if (is_directory_command(text)) return run_directory_command(session, text);

  bool has_cdata = text.find("<![CDATA[") != std::string_view::npos;
  if (!has_cdata && text.find_first_of("|&<>^;") != std::string_view::npos) {
    // A request with a content marker is a write whose body holds the metacharacter,
    // never a shell pipeline, even when its first word happens to be a program.
    bool has_body = split_content(text).body.has_value();
    if (!has_body && platform::is_program_on_path(first))
      return "OK: shell output:\n" + run_shell_text(session, text);
    return kMetacharacterRefusal;
  }

  Request request = split_content(text);
  std::string lower_first = to_lower(first_word(request.instruction));
  if (is_help_word(lower_first))
    return help(session.registry, split_first_word(request.instruction).second);
  if (lower_first == "guided")
    return guided_answer(session, split_first_word(request.instruction).second);
  if (const PlainVerb* verb = session.registry.find_plain_verb(first))
    return verb->run(session, rest);

  if (auto intent = match_intent(request)) {
    if (!intent->failure.empty()) return intent->failure;
    if (intent->command.empty())
      return "OK: nothing to " + intent->intent +
             " — every save is already a version on disk (history: 'Kestrune history <path>')";
    return with_tip(session, intent->command, dispatch(session, intent->command));
  }
  if (auto guess = guess_family(request.instruction)) {
    return "ERROR: couldn't parse that, but it looks like you want to " + guess->action +
           " — here's how:\n" + help(session.registry, guess->help_topic);
  }
  return "ERROR: couldn't parse that — say what you want with a verb (read, write, create, "
         "delete, copy, move, history, diff, revert ...) or a command such as fs:cat <path> "
         "(try: Kestrune help)";
}

}  // namespace kx::lang
