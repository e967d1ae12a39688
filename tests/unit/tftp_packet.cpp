// tftp_packet.cpp: TFTP packets built and taken apart byte by byte.
#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

#include "tftp/tftp_packet.h"

namespace {

using namespace fetchrig;
using namespace std::string_literals;

std::string request(tftp_opcode opcode, std::string_view name) {
  tftp_packet_buffer buffer;
  const std::size_t length = tftp_build_request(opcode, name, buffer);
  return {buffer.data(), length};
}

TEST(tftp_request, carries_name_mode_and_block_size) {
  const std::string tail = "\0octet\0blksize\0"s + "1432\0"s;
  EXPECT_EQ(request(tftp_opcode::rrq, "boot.rom"), "\0\1boot.rom"s + tail);
  EXPECT_EQ(request(tftp_opcode::wrq, "/fw/boot.rom"), "\0\2fw/boot.rom"s + tail);
  EXPECT_EQ(request(tftp_opcode::rrq, "//fw"), "\0\1/fw"s + tail);
  EXPECT_EQ(request(tftp_opcode::rrq, "/"), "\0\1"s + tail);
  EXPECT_EQ(request(tftp_opcode::rrq, ""), "\0\1"s + tail);
  EXPECT_EQ(request(tftp_opcode::rrq, std::string(255, 'n')), "\0\1"s + std::string(255, 'n') + tail);
  EXPECT_EQ(request(tftp_opcode::rrq, std::string(256, 'n')), "");
}

TEST(tftp_error, ends_in_a_terminator_and_must_fit) {
  tftp_packet_buffer buffer;
  const std::size_t length = tftp_build_error(8, "err blksize", buffer);
  EXPECT_EQ(std::string(buffer.data(), length), "\0\5\0\x8"s + "err blksize\0"s);
  EXPECT_EQ(tftp_build_error(8, std::string(tftp_max_blksize, 'e'), buffer), 0u);
  EXPECT_EQ(tftp_build_error(8, std::string(tftp_max_blksize - 1, 'e'), buffer), buffer.size());
}

TEST(tftp_parse, tells_packets_apart) {
  struct row {
    const char* name;
    std::string datagram;
    tftp_kind kind;
    int block;
    std::string body;
  };
  const std::vector<row> rows = {
      {"empty datagram", "", tftp_kind::unexpected, 0, ""},
      {"half an opcode", "\0"s, tftp_kind::unexpected, 0, ""},
      {"DATA without block", "\0\3"s, tftp_kind::unexpected, 0, ""},
      {"DATA, half a block number", "\0\3\1"s, tftp_kind::unexpected, 0, ""},
      {"empty DATA", "\0\3\1\2"s, tftp_kind::data, 258, ""},
      {"DATA of high block", "\0\3\xff\xfe"s + "ab\0c"s, tftp_kind::data, 65534, "ab\0c"s},
      {"ACK, half a block number", "\0\4\0"s, tftp_kind::unexpected, 0, ""},
      {"ACK", "\0\4\x80\0"s, tftp_kind::ack, 32768, ""},
      {"ACK with more bytes", "\0\4\0\1zz"s, tftp_kind::ack, 1, ""},
      {"OACK without options", "\0\6"s, tftp_kind::oack, 0, ""},
      {"OACK", "\0\6blksize\0"s, tftp_kind::oack, 0, "blksize\0"s},
      {"ERROR", "\0\5\0\1no file\0"s, tftp_kind::unexpected, 0, ""},
      {"request", "\0\1f\0octet\0"s, tftp_kind::unexpected, 0, ""},
      {"opcode in the wrong byte", "\3\0\0\1"s, tftp_kind::unexpected, 0, ""},
  };
  for (const row& r : rows) {
    SCOPED_TRACE(r.name);
    const tftp_packet packet = tftp_parse_packet(r.datagram);
    EXPECT_EQ(packet.kind, r.kind);
    EXPECT_EQ(packet.block, r.block);
    EXPECT_EQ(packet.body, r.body);
  }
}

TEST(tftp_options, finds_the_block_size) {
  struct row {
    const char* name;
    std::string list;
    std::string value;  // "none": not found
  };
  const std::vector<row> rows = {
      {"empty list", "", "none"},
      {"alone", "blksize\0"s + "1024\0"s, "1024"},
      {"any letter case", "BlkSize\0"s + "1024\0"s, "1024"},
      {"second option", "tsize\0"s + "40\0blksize\0"s + "800\0"s, "800"},
      {"first of two", "blksize\0"s + "100\0blksize\0"s + "200\0"s, "100"},
      {"as a value, not a name", "tsize\0blksize\0"s + "1024\0"s, "none"},
      {"name without value", "blksize\0"s, "none"},
      {"value without terminator", "blksize\0"s + "1024", "none"},
      {"name without terminator", "blksize", "none"},
      {"empty value", "blksize\0\0"s, ""},
      {"longer name", "blksize2\0"s + "1024\0"s, "none"},
      {"other option without terminator", "tsize\0"s + "40", "none"},
  };
  for (const row& r : rows) {
    SCOPED_TRACE(r.name);
    EXPECT_EQ(tftp_find_blksize(r.list).value_or("none"), r.value);
  }
}

// Cut anywhere, a list must not yield a size that the whole one does not have.
TEST(tftp_options, a_cut_list_holds_no_size) {
  const std::string list = "tsize\0"s + "40\0blksize\0"s + "1024\0"s;
  for (std::size_t length = 0; length < list.size(); ++length) {
    EXPECT_FALSE(tftp_find_blksize(std::string_view(list).substr(0, length))) << length;
  }
}

TEST(tftp_options, accepts_block_sizes_in_range) {
  struct row {
    const char* text;
    int size;
  };
  constexpr row rows[] = {
      {"1432", 1432}, {"24", 24},    {"512abc", 512}, {"+512", 512},      {"00800", 800},
      {"1433", -1},   {"23", -1},    {"0", -1},       {"-5", -1},         {"-4294966784", -1},
      {"+-512", -1},  {"", -1},      {"large", -1},   {"4294967808", -1}, {"18446744073709552128", -1},
      {"65536", -1},  {"0x200", -1},
  };
  for (const row& r : rows) EXPECT_EQ(tftp_check_blksize(r.text, tftp_max_blksize), r.size) << r.text;
  EXPECT_EQ(tftp_check_blksize("513", 512), -1);
  EXPECT_EQ(tftp_check_blksize("512", 512), 512);
}

}  // namespace
