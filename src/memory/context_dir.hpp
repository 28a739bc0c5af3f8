#pragma once
// The directory of a context under the contexts root: "<bot>@<context>", each name
// escaped so that no name can leave the root or collide with another. Bytes other
// than [A-Za-z0-9_-] (and '.' after the first byte) become "%XX"; so '/', '\', ':',
// '@', '%', spaces, control bytes and a leading '.' never reach the file system, and
// "." or ".." cannot be formed. A part longer than 96 escaped bytes is cut and given
// a "~" and the 64-bit FNV-1a hash of the whole name, keeping it unique.
#include <optional>
#include <string>
#include <string_view>

namespace kx::memory {

std::string escape_name_part(std::string_view name);

// The name an escaped part came from, or nothing for a part cut to a hash (or one
// that no name escapes to).
std::optional<std::string> unescape_name_part(std::string_view part);

// "<escaped bot>@<escaped context>".
std::string context_dir_name(std::string_view bot, std::string_view context);

// The prefix every context directory of `bot` starts with: "<escaped bot>@".
std::string bot_dir_prefix(std::string_view bot);

}  // namespace kx::memory
