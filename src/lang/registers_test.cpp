#include "lang/registers.hpp"

#include <gtest/gtest.h>

namespace kx::lang {
namespace {

RegisterSet three_hits() {
  RegisterSet registers;
  registers.publish({"a.c:1", "b.c:7", "c.c:9"});
  return registers;
}

TEST(RegisterSet, SelectorsNameOneValueOrAnInclusiveSlice) {
  RegisterSet registers = three_hits();
  EXPECT_EQ(registers.select("1"), (std::vector<std::string>{"b.c:7"}));
  EXPECT_EQ(registers.select("0..1"), (std::vector<std::string>{"a.c:1", "b.c:7"}));
  EXPECT_EQ(registers.select(".."), registers.values());
  EXPECT_EQ(registers.select("1.."), (std::vector<std::string>{"b.c:7", "c.c:9"}));
  EXPECT_EQ(registers.select("..0"), (std::vector<std::string>{"a.c:1"}));
  for (const char* bad : {"3", "2..1", "0..3", "x", "-1", "", "1..x"})
    EXPECT_FALSE(registers.select(bad)) << bad;
  EXPECT_FALSE(RegisterSet().select(".."));
}

TEST(RegisterSet, ExpandReplacesOnlySelectorsThatNameSomething) {
  RegisterSet registers = three_hits();
  EXPECT_EQ(registers.expand("fs:cat $[0] and $[1..2]"), "fs:cat a.c:1 and b.c:7 c.c:9");
  // A regex such as "x$[a]" or an unclosed bracket is not a register reference.
  EXPECT_EQ(registers.expand("grep x$[a] $[7] $[1"), "grep x$[a] $[7] $[1");
  registers.publish({});
  EXPECT_EQ(registers.expand("$[0]"), "$[0]");
}

}  // namespace
}  // namespace kx::lang
