// text.h: the bytes that a scenario writes down: escapes and generated content.
#ifndef FETCHRIG_TESTS_SCENARIO_TEXT_H
#define FETCHRIG_TESTS_SCENARIO_TEXT_H

#include <string>
#include <string_view>
#include <vector>

namespace scenario {

// {dir} and {got}.
struct places {
  std::string directory;
  std::string local_file() const { return directory + "/got"; }
};

// The bytes that `text` stands for; throws std::runtime_error with the reason.
std::string bytes_of(std::string_view text, const places& where);

std::string trim(std::string_view text);
// Splits the first word off, up to a space that is in no braces.
std::string first_word(std::string& text);
// Words at spaces; a part in double quotes stays together, without them.
std::vector<std::string> words_of(std::string_view text);

}  // namespace scenario
#endif
