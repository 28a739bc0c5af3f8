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

// The usage error of a verb given more names than it takes: a name with blanks left
// unquoted would otherwise be cut short or lose words. It is `usage`, then the two
// forms that keep a name whole, filled in with the words given (the last name takes
// the words left over), one element per tag of `tags` ("path", "dest").
std::string too_many_names(std::string_view usage, std::string_view verb,
                           const std::vector<std::string>& given,
                           const std::vector<std::string_view>& tags);

}  // namespace kst
