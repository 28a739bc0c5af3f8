#pragma once
// The interpreter's entry points. Every front end (command line, resident console,
// MCP, chat) ends in run_line. None of these throw; failures are "ERROR: " results.
#include <string>
#include <string_view>

#include "lang/registry.hpp"
#include "lang/session.hpp"

namespace kx::lang {

// Runs one command line for `bot_id`: a structured command (first word holds a
// colon) goes to dispatch, anything else to natural.
std::string run_line(Session& session, std::string_view bot_id, std::string_view line);

// Routes "namespace:verb args" to its family.
std::string dispatch(Session& session, std::string_view line);

// Runs one-word commands such as "grep args".
std::string run_word_command(Session& session, std::string_view name, std::string_view args);

// The plain-language entry: "Kestrune: <what you want>".
std::string natural(Session& session, std::string_view text);

// With guided mode on, `result` followed by the next-step tip of the verb that
// `command` ran, when the verb names one and the result is not an error.
std::string with_tip(const Session& session, std::string_view command, std::string result);

// The help system: "" for the overview, a section, a command, or "all".
std::string help(const Registry& registry, std::string_view topic);

// The interactive prompt: "kx<cwd>> ", with the raw depth in front when above zero.
std::string prompt(const Session& session);

}  // namespace kx::lang
