#pragma once
// Edits of other programs' configuration files that touch only our own entry: the
// rest of the file (comments, order, odd formatting) keeps its bytes.
#include <filesystem>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

namespace kx::launcher {

// The outcome of one edit, as reported to the user.
enum class EditOutcome { kUnchanged, kWritten, kRefused };

struct FileEdit {
  EditOutcome outcome = EditOutcome::kRefused;
  std::string detail;  // why refused, or what was done
};

// JSON with comments and trailing commas, as VS Code writes it. Nothing when it does
// not parse (the reason in `error`).
std::optional<nlohmann::json> parse_jsonc(const std::string& text, std::string& error);

// `text` with member `container`.`key` set to `value` (the container object made
// when missing). Nothing when the text does not parse or the container is not an
// object; `text` itself when the entry already holds that value.
std::optional<std::string> jsonc_with_entry(const std::string& text, const std::string& container,
                                            const std::string& key, const nlohmann::json& value,
                                            std::string& error);

// Whether the text is TOML as far as its structure goes: tables, keys, strings,
// arrays and inline tables well formed, no table defined twice.
bool toml_well_formed(const std::string& text, std::string& error);

// `text` with the table [<table>] holding exactly `body` (key = value lines): the
// table replaced in place when it exists, appended when neither it nor an inline
// definition of its parent exists. Nothing (with `error`) otherwise.
std::optional<std::string> toml_with_table(const std::string& text, const std::string& table,
                                           const std::string& body, std::string& error);

// Writes `text` to `path` the safe way: the old file kept as "<name>.kx-backup",
// a temporary file renamed over it, and the result read back and compared.
FileEdit write_checked(const std::filesystem::path& path, const std::string& old_text, bool existed,
                       const std::string& text);

}  // namespace kx::launcher
