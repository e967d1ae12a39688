// text.cpp: escapes and generators, from the inside out.
#include "tests/scenario/text.h"

#include <algorithm>
#include <sstream>
#include <stdexcept>

#include "core/base64.h"
#include "tests/scenario/cert_table.h"
#include "tests/support/temp_dir.h"

namespace scenario {
namespace {

using std::string;
using std::string_view;

string big_endian(int value) {
  return {static_cast<char>(value >> 8 & 0xff), static_cast<char>(value & 0xff)};
}

string content(const string& amount) {
  const std::size_t at = amount.find('@');
  const std::size_t size = std::stoul(amount),
                    from = at == string::npos ? 0 : std::stoul(amount.substr(at + 1));
  return test::make_bytes(from + size).substr(from);
}

string chunk(const string& data) {
  std::ostringstream size;
  size << std::hex << data.size();
  return size.str() + "\r\n" + data + "\r\n";
}

string base64(const string& bytes) {
  fetchrig::unique_text text;
  const std::size_t length = fetchrig::base64_encode(text, bytes);
  return {text.get(), length};
}

string repeated(int times, const string& text) {
  string all;
  while (times-- > 0) all += text;
  return all;
}

// Every byte that a file's name may hold.
string octets() {
  string all;
  for (int byte = 1; byte < 256; ++byte)
    if (byte != '/') all += static_cast<char>(byte);
  return all;
}

// An acknowledgement of options: names and values in turn.
string oack(const string& options) {
  string packet = big_endian(6);
  for (const string& text : words_of(options)) packet += text + '\0';
  return packet;
}

string request(int opcode, const string& name) {
  using namespace std::string_literals;
  return big_endian(opcode) + name + "\0octet\0blksize\0"s + "1432\0"s;
}

string generated(const string& name, string rest, const places& where) {
  if (name == "bytes") return content(rest);
  if (name == "chunk") return chunk(rest);
  if (name == "md5") return test::md5_hex(rest);
  if (name == "sha256") return test::digest_hex(EVP_sha256(), rest);
  if (name == "sha512-256") return test::digest_hex(EVP_sha512_256(), rest);
  if (name == "base64") return base64(rest);
  if (name == "dir") return where.directory;
  if (name == "octets") return octets();
  if (name == "w") return where.directory + "/w";
  if (name == "got") return where.local_file();
  if (name == "rrq" || name == "wrq") return request(name == "rrq" ? 1 : 2, rest);
  if (name == "oack") return oack(rest);
  const bool numbered = name == "repeat" || name == "data" || name == "ack" || name == "error";
  if (const auto text = certificate_text(name, rest)) return *text;
  if (!numbered) throw std::runtime_error("unknown {" + name + "}");
  const int number = std::stoi(first_word(rest));
  if (name == "repeat") return repeated(number, rest);
  if (name == "data") return big_endian(3) + big_endian(number) + rest;
  if (name == "ack") return big_endian(4) + big_endian(number);
  return big_endian(5) + big_endian(number) + rest + '\0';
}

// The byte behind a backslash; `at` moves to its last character.
char escaped(string_view text, std::size_t& at) {
  const char code = ++at < text.size() ? text[at] : '\0';
  if (code == 'x') return static_cast<char>(std::stoi(string(text.substr((at += 2) - 1, 2)), nullptr, 16));
  constexpr string_view codes = "rnts0", bytes("\r\n\t \0", 5);
  const std::size_t known = codes.find(code);
  return known == string_view::npos ? code : bytes[known];
}

// What stands from `at` on, to the brace that closes it when it is `nested`; `at` moves behind that.
string expanded(string_view text, std::size_t& at, bool nested, const places& where) {
  string bytes;
  for (; at < text.size(); ++at) {
    if (text[at] == '\\') {
      bytes += escaped(text, at);
    } else if (text[at] == '{') {
      string inside = expanded(text, ++at, true, where);
      const string name = first_word(inside);
      bytes += generated(name, inside, where);
    } else if (nested && text[at] == '}') {
      return bytes;
    } else {
      bytes += text[at];
    }
  }
  if (nested) throw std::runtime_error("a brace is not closed");
  return bytes;
}

}  // namespace

string first_word(string& text) {
  std::size_t end = 0;
  for (int braces = 0; end < text.size() && (text[end] != ' ' || braces > 0); ++end)
    braces += (text[end] == '{') - (text[end] == '}');
  const string word = text.substr(0, end);
  text.erase(0, end + 1);
  return word;
}

string trim(string_view text) {
  const std::size_t first = text.find_first_not_of(" \t");
  return first == string_view::npos ? ""
                                    : string(text.substr(first, text.find_last_not_of(" \t") + 1 - first));
}

std::vector<string> words_of(string_view text) {
  std::vector<string> words(1);
  bool quoted = false, kept = false;  // "" is a word
  int braces = 0;
  for (const char byte : text) {
    if (byte == '"') {
      quoted = !quoted;
      kept = true;
    } else if (byte == ' ' && !quoted && braces == 0) {
      if (!words.back().empty() || kept) words.emplace_back();
      kept = false;
    } else {
      braces += (byte == '{') - (byte == '}');
      words.back() += byte;
    }
  }
  if (words.back().empty() && !kept) words.pop_back();
  return words;
}

string bytes_of(string_view text, const places& where) {
  std::size_t at = 0;
  return expanded(text, at, false, where);
}

}  // namespace scenario
