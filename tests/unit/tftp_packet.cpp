// tftp_packet.cpp: TFTP packets and option lists, byte by byte.
#include <gtest/gtest.h>
#include <limits.h>
#include <stdlib.h>

#include <string>
#include <string_view>

#include "tftp/tftp_packet.h"
#include "tftp/tftp_port.h"

namespace {

using namespace fetchrig;
using namespace std::string_literals;

TEST(tftp_packet, requests_are_bounded) {
  tftp_packet_buffer buffer;
  const auto request = [&](std::string_view name) {
    return std::string(buffer.data(), tftp_build_request(tftp_opcode::wrq, name, buffer));
  };
  const std::string tail = "\0octet\0blksize\0"s + "1432\0"s;
  const std::string longest(255, 'n');
  EXPECT_EQ(request("//fw/boot.rom"), "\0\2/fw/boot.rom"s + tail) << "one slash is left out";
  EXPECT_EQ(request(""), "\0\2"s + tail);
  EXPECT_EQ(request(longest), "\0\2"s + longest + tail);
  EXPECT_EQ(request(longest + 'n'), "");
  EXPECT_EQ(tftp_build_error(8, std::string(tftp_max_blksize - 1, 'e'), buffer), buffer.size());
  EXPECT_EQ(tftp_build_error(8, std::string(tftp_max_blksize, 'e'), buffer), 0u);
}

TEST(tftp_packet, the_block_size_is_found_among_the_options) {
  const auto found = [](std::string_view list) { return tftp_find_blksize(list).value_or("none"); };
  const std::string list = "tsize\0"s + "40\0BlkSize\0"s + "800\0"s;
  EXPECT_EQ(found(list + "blksize\0"s + "24\0"s), "800") << "second option, any letter case, first of two";
  EXPECT_EQ(found("blksize\0\0"s), "");
  EXPECT_EQ(found("tsize\0blksize\0"s + "1024\0"s), "none") << "a value, not a name";
  EXPECT_EQ(found("blksize2\0"s + "1024\0"s), "none");
  for (std::size_t length = 0; length < list.size(); ++length) {
    EXPECT_EQ(found(std::string_view(list).substr(0, length)), "none") << "cut to " << length;
  }
}

TEST(tftp_packet, block_sizes_are_in_range) {
  struct {
    const char* text;
    int size;
    // clang-format off
  } const rows[] = {
      {"1432", 1432}, {"1433", -1}, {"24", 24}, {"23", -1}, {"512abc", 512}, {"+512", 512}, {"-512", -1},
      {"+-512", -1}, {"", -1}, {"4294967808", -1}, {"18446744073709552128", -1}};
  // clang-format on
  for (const auto& row : rows)
    EXPECT_EQ(tftp_check_blksize(row.text, tftp_max_blksize), row.size) << row.text;
}

TEST(tftp_ports, are_those_of_rand_which_is_left_alone) {
  for (const unsigned seed : {0U, 1U, 1395619200U, UINT_MAX}) {
    srand(seed);
    tftp_ports ports(seed);
    for (int i = 0; i < 100; ++i) EXPECT_EQ(ports.next(), 1024 + rand() % 64511) << seed << " " << i;
  }
}

}  // namespace
