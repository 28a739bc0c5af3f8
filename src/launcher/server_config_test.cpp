#include "launcher/server_config.hpp"

#include <gtest/gtest.h>

#include <sstream>

namespace kx::launcher {

TEST(ServerConfig, ListenAddressIsReadAsAKeyOrInsideTheServerSection) {
  std::istringstream key("[general]\nx=1\nserver.listen = 0.0.0.0\n");
  EXPECT_EQ(parse_listen_address(key), "0.0.0.0");
  std::istringstream section("[server]\r\n# open it\r\nlisten=192.168.1.2\r\n[other]\nlisten=9\n");
  EXPECT_EQ(parse_listen_address(section), "192.168.1.2");
  std::istringstream absent("[other]\nlisten=0.0.0.0\n");
  EXPECT_EQ(parse_listen_address(absent), std::nullopt);
}

}  // namespace kx::launcher
