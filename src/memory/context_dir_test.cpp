#include "memory/context_dir.hpp"

#include <gtest/gtest.h>

namespace kx::memory {
namespace {

TEST(ContextDir, PlainNamesStayReadable) {
  EXPECT_EQ(context_dir_name("cli", "notes"), "cli@notes");
  EXPECT_EQ(context_dir_name("Kestrune", "build-log_2.v1"), "Kestrune@build-log_2.v1");
}

TEST(ContextDir, NoNameCanEscapeTheRoot) {
  for (const char* evil : {"..", ".", "../x", "a/../../b", "/etc", "c:\\win", "a\\b", ""}) {
    const std::string dir = context_dir_name(evil, evil);
    EXPECT_EQ(dir.find('/'), std::string::npos) << dir;
    EXPECT_EQ(dir.find('\\'), std::string::npos) << dir;
    EXPECT_EQ(dir.find(':'), std::string::npos) << dir;
    EXPECT_NE(dir.front(), '.') << dir;
  }
  EXPECT_EQ(escape_name_part(".."), "%2E%2E");
  EXPECT_EQ(escape_name_part(""), "%");
}

TEST(ContextDir, SeparatorAndEscapeCharactersCannotForgeAnotherPair) {
  // "a@b" + "c" must differ from "a" + "b@c".
  EXPECT_NE(context_dir_name("a@b", "c"), context_dir_name("a", "b@c"));
  EXPECT_NE(escape_name_part("%41"), escape_name_part("A"));
  EXPECT_EQ(escape_name_part("end."), "end%2E");
}

TEST(ContextDir, EscapedNamesDecodeBackUnlessCutToAHash) {
  for (const char* name : {"notes", "/home/x/my proj", "..", "a@b%c", "end.", ""})
    EXPECT_EQ(unescape_name_part(escape_name_part(name)), name);
  EXPECT_EQ(unescape_name_part(escape_name_part(std::string(300, 'x'))), std::nullopt);
  EXPECT_EQ(unescape_name_part("%4"), std::nullopt);
  EXPECT_EQ(unescape_name_part("%41"), std::nullopt);  // "A" never escapes to "%41"
}

TEST(ContextDir, LongNamesAreCutButStayDistinct) {
  const std::string a(300, 'x');
  const std::string b = std::string(299, 'x') + "y";
  EXPECT_LE(escape_name_part(a).size(), 96u);
  EXPECT_NE(escape_name_part(a), escape_name_part(b));
  const std::string spaced(200, ' ');
  EXPECT_LE(escape_name_part(spaced).size(), 96u);
}

}  // namespace
}  // namespace kx::memory
