#pragma once
// Memo properties: the bits a memo is typed with when it is created
// (procedure, history, ...). A memo with no property is "untyped" (flags 0).
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kx::memory {

struct MemoProperty {
  std::string_view name;
  std::uint32_t bit;
};

// All 17 properties in bit order. The last one, "temporal", is accepted everywhere
// but not advertised in help texts.
const std::vector<MemoProperty>& memo_properties();

// The advertised names joined by '|': "procedure|history|...|todo".
const std::string& advertised_property_names();

// Parses "procedure|usage" into bits; an empty text is 0. On an unknown name
// returns nothing and stores the offending name in `unknown`.
std::optional<std::uint32_t> parse_props(std::string_view text, std::string& unknown);

// "procedure|usage", or "untyped" for 0. Bit 31 (vector present) is not a property.
std::string props_to_text(std::uint32_t flags);

}  // namespace kx::memory
