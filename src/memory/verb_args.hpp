#pragma once
// Argument text of the memory verbs. Fields are separated by commas
// ("cli, notes, build, , how to build") or, in the '|' forms, by bars
// ("cli|notes|build"): whichever of the two comes first in the text decides. The
// last field takes the rest of the text unsplit, so content may hold either. (So in
// the '|' form a props field cannot combine properties; the comma form can.)
#include <string>
#include <string_view>
#include <vector>

namespace kx::memory {

// Splits into at most `max_fields` trimmed fields.
std::vector<std::string> split_args(std::string_view args, std::size_t max_fields);

// Several names in one field: "notes;work" or "notes|work". Empty names dropped.
std::vector<std::string> split_list(std::string_view field, std::string_view separators);

std::string_view trim(std::string_view s);

// A 1-based position; 0 for anything that is not a plain positive number.
std::uint32_t parse_position(std::string_view text);

}  // namespace kx::memory
