// tftp_packet.cpp: TFTP packets built and taken apart byte by byte.
#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

#include "tftp/tftp_packet.h"

namespace {

using namespace fetchrig;
using namespace std::string_literals;

TEST(tftp_packet, requests_and_errors_are_bounded) {
  tftp_packet_buffer buffer;
  const auto request = [&](tftp_opcode opcode, std::string_view name) {
    return std::string(buffer.data(), tftp_build_request(opcode, name, buffer));
  };
  const std::string tail = "\0octet\0blksize\0"s + "1432\0"s;
  const std::string longest(255, 'n');
  EXPECT_EQ(request(tftp_opcode::wrq, "/fw/boot.rom"), "\0\2fw/boot.rom"s + tail);
  EXPECT_EQ(request(tftp_opcode::rrq, "//fw"), "\0\1/fw"s + tail) << "one slash is left out";
  EXPECT_EQ(request(tftp_opcode::rrq, ""), "\0\1"s + tail);
  EXPECT_EQ(request(tftp_opcode::rrq, longest), "\0\1"s + longest + tail);
  EXPECT_EQ(request(tftp_opcode::rrq, longest + 'n'), "");

  EXPECT_EQ(tftp_build_error(8, std::string(tftp_max_blksize - 1, 'e'), buffer), buffer.size());
  EXPECT_EQ(tftp_build_error(8, std::string(tftp_max_blksize, 'e'), buffer), 0u);
}

TEST(tftp_packet, kinds_are_told_apart) {
  struct {
    const char* name;
    std::string datagram;
    tftp_kind kind;
    int block;
    std::string body;
  } const rows[] = {
      {"half an opcode", "\0"s, tftp_kind::unexpected, 0, ""},
      {"DATA, half a block number", "\0\3\1"s, tftp_kind::unexpected, 0, ""},
      {"empty DATA", "\0\3\1\2"s, tftp_kind::data, 258, ""},
      {"DATA of high block", "\0\3\xff\xfe"s + "ab\0c"s, tftp_kind::data, 65534, "ab\0c"s},
      {"ACK, half a block number", "\0\4\0"s, tftp_kind::unexpected, 0, ""},
      {"ACK with more bytes", "\0\4\x80\0zz"s, tftp_kind::ack, 32768, ""},
      {"OACK without options", "\0\6"s, tftp_kind::oack, 0, ""},
      {"OACK", "\0\6blksize\0"s, tftp_kind::oack, 0, "blksize\0"s},
      {"ERROR", "\0\5\0\1no file\0"s, tftp_kind::unexpected, 0, ""},
      {"opcode in the wrong byte", "\3\0\0\1"s, tftp_kind::unexpected, 0, ""},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const tftp_packet packet = tftp_parse_packet(row.datagram);
    EXPECT_EQ(packet.kind, row.kind);
    EXPECT_EQ(packet.block, row.block);
    EXPECT_EQ(packet.body, row.body);
  }
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

}  // namespace
