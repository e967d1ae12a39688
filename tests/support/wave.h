// wave.h: WAVE files for the ringtone tests, written out field by field, not with the library's own template.
#ifndef FETCHRIG_TESTS_SUPPORT_WAVE_H
#define FETCHRIG_TESTS_SUPPORT_WAVE_H

#include <stdint.h>

#include <string>

namespace test {

struct wave_format {
  uint16_t code = 7;  // mu-law
  uint16_t channels = 1;
  uint32_t samples_per_s = 8000;
  uint32_t bytes_per_s = 8000;
  uint16_t block = 1;
  uint16_t bits = 8;
};

inline std::string little_endian(uint32_t value, int width) {
  std::string bytes;
  for (int i = 0; i < width; ++i) bytes += static_cast<char>(value >> (8 * i) & 0xff);
  return bytes;
}

// A file of `size` bytes, at least the 46 of its headers.
inline std::string make_wave(uint32_t size, const wave_format& format = {}) {
  std::string file = "RIFF" + little_endian(size - 8, 4) + "WAVEfmt " + little_endian(18, 4) +
                     little_endian(format.code, 2) + little_endian(format.channels, 2) +
                     little_endian(format.samples_per_s, 4) + little_endian(format.bytes_per_s, 4) +
                     little_endian(format.block, 2) + little_endian(format.bits, 2) + little_endian(0, 2) +
                     "data" + little_endian(size - 46, 4);
  for (uint32_t i = 0; file.size() < size; ++i) file += static_cast<char>(i * 7);
  return file;
}

}  // namespace test
#endif
