// tftp_options.cpp: received datagrams and the option list of an OACK. Inside, every view must lie within the input, an
// accepted block size must be in range, and a list that we format must parse back to the size we put in.
#include <stddef.h>
#include <stdint.h>

#include <string>
#include <string_view>

#include "fuzz/support/check.h"
#include "tftp/tftp_packet.h"

using namespace fetchrig;

namespace {

bool lies_within(std::string_view part, std::string_view whole) {
  return part.empty() || (part.data() >= whole.data() && part.size() <= whole.size() &&
                          static_cast<size_t>(part.data() - whole.data()) <= whole.size() - part.size());
}

void check_packet(std::string_view datagram) {
  const tftp_packet packet = tftp_parse_packet(datagram);
  FUZZ_CHECK(lies_within(packet.body, datagram));
  switch (packet.kind) {
    case tftp_kind::data:
      FUZZ_CHECK(packet.body.size() + tftp_header_len == datagram.size());
      break;
    case tftp_kind::oack:
      FUZZ_CHECK(packet.body.size() + 2 == datagram.size());
      break;
    case tftp_kind::ack:
      FUZZ_CHECK(datagram.size() >= tftp_header_len);
      break;
    case tftp_kind::unexpected:
      FUZZ_CHECK(packet.body.empty());
      break;
  }
}

void check_options(std::string_view options) {
  const auto value = tftp_find_blksize(options);
  if (!value) return;
  FUZZ_CHECK(lies_within(*value, options));
  FUZZ_CHECK(value->find('\0') == std::string_view::npos);
  FUZZ_CHECK(value->data() + value->size() <
             options.data() + options.size());  // its terminator was in the list
  const int size = tftp_check_blksize(*value, tftp_max_blksize);
  FUZZ_CHECK(size == -1 || (size >= tftp_min_blksize && size <= tftp_max_blksize));
}

// The input as a foreign option in front of the one we look for.
void check_round_trip(std::string_view bytes) {
  const std::string_view name = bytes.substr(0, bytes.find('\0'));
  const int size =
      tftp_min_blksize + static_cast<int>(bytes.size() % (tftp_max_blksize - tftp_min_blksize + 1));
  std::string list = "x-";
  list.append(name).append(1, '\0').append(name).append(1, '\0');
  list.append("BlkSize").append(1, '\0').append(std::to_string(size)).append(1, '\0');
  const auto found = tftp_find_blksize(list);
  FUZZ_CHECK(found.has_value());
  FUZZ_CHECK(tftp_check_blksize(*found, tftp_max_blksize) == size);
  list.pop_back();
  FUZZ_CHECK(!tftp_find_blksize(list).has_value());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  check_packet(bytes);
  check_options(bytes);
  check_options(tftp_parse_packet(bytes).body);
  check_round_trip(bytes);
  return 0;
}
