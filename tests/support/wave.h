// wave.h: WAVE files for the ringtone tests, written out field by field, not with the library's own template.
#ifndef FETCHRIG_TESTS_SUPPORT_WAVE_H
#define FETCHRIG_TESTS_SUPPORT_WAVE_H

#include <stdint.h>

#include <string>

namespace test {

inline std::string little_endian(uint32_t value, int width) {
  std::string bytes;
  for (int i = 0; i < width; ++i) bytes += static_cast<char>(value >> (8 * i) & 0xff);
  return bytes;
}

// A file of `size` bytes, at least the 46 of its headers: mu-law, 1 channel, 8000 samples and bytes per
// second, blocks of 1 byte, 8 bits.
inline std::string make_wave(uint32_t size) {
  std::string file = "RIFF" + little_endian(size - 8, 4) + "WAVEfmt " + little_endian(18, 4) +
                     little_endian(7, 2) + little_endian(1, 2) + little_endian(8000, 4) +
                     little_endian(8000, 4) + little_endian(1, 2) + little_endian(8, 2) +
                     little_endian(0, 2) + "data" + little_endian(size - 46, 4);
  for (uint32_t i = 0; file.size() < size; ++i) file += static_cast<char>(i * 7);
  return file;
}

}  // namespace test
#endif
