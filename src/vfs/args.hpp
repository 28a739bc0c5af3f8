#pragma once
// Command arguments in either form, mixed freely:
//   plain words      src/a.txt "name with blanks" 'x'
//   elements         <path>src/a.txt</path> <dest>b.txt</dest> <version>3</version>
//   CDATA content    <content><![CDATA[any text, even </content>]]></content>
// Element text without CDATA is taken as written. A tag that is opened and never
// closed is an error.
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kst {

struct Args {
  std::vector<std::string> words;                             // plain words, in order
  std::vector<std::pair<std::string, std::string>> elements;  // (tag, text), in order

  // The text of the first element named `tag`.
  std::optional<std::string> element(std::string_view tag) const;
  // The element `tag` if given, else plain word number `index`.
  std::optional<std::string> get(std::string_view tag, std::size_t index) const;
};

// Parses `text`. On error returns nothing and sets `error`.
std::optional<Args> parse_args(std::string_view text, std::string& error);

}  // namespace kst
