// fuzz.h: what the targets are written with. A target is a function over the bytes of one input; its seeds lie in
// corpus/NAME. Its checks hold in release builds too and stop the program where a fuzzer sees it.
#ifndef FETCHRIG_FUZZ_FUZZ_H
#define FETCHRIG_FUZZ_FUZZ_H

#include <string>
#include <string_view>

namespace fetchrig::fuzz {

using target = void (*)(std::string_view input);

struct registration {
  registration(const char* name, target run);
};

void check_at(bool holds, const char* what, const char* file, int line);

// Login and pass phrase of every target. No line of the log may show the secret.
inline constexpr const char* user = "phone";
inline constexpr const char* secret = "s3cret";

// The next part of the input up to the separator, or all of it; it is taken off.
std::string_view next_part(std::string_view& input, char separator);

}  // namespace fetchrig::fuzz

#define FUZZ_TARGET(name)                                                   \
  static void name(std::string_view input);                                 \
  static const fetchrig::fuzz::registration registered_##name(#name, name); \
  static void name(std::string_view input)

#define FUZZ_CHECK(condition) fetchrig::fuzz::check_at((condition), #condition, __FILE__, __LINE__)

#endif
