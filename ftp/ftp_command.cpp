// SPDX-License-Identifier: MIT
// ftp_command.cpp: building and sending command lines.
#include "ftp/ftp_command.h"

#include <errno.h>
#include <limits.h>
#include <openssl/crypto.h>
#include <string.h>

#include <span>

#include "core/cause.h"
#include "core/owners.h"
#include "ftp/ftp_stream.h"
#include "log/log.h"
#include "log/printable.h"

namespace fetchrig {
namespace {

constexpr std::string_view password_word = "PASS";
constexpr std::string_view masked_password = "PASS ******";

// One command line. Wiped afterwards: it may hold a password.
class command_line {
 public:
  command_line(std::string_view word, std::optional<std::string_view> argument)
      : length_(word.size() + 2 + (argument ? argument->size() + 1 : 0)),
        text_(length_ <= INT_MAX ? static_cast<char*>(malloc(length_)) : nullptr) {
    if (!text_) return;
    char* to = append(text_.get(), word);
    if (argument) to = append(append(to, " "), *argument);
    append(to, "\r\n");
  }
  ~command_line() {
    if (text_) OPENSSL_cleanse(text_.get(), length_);
  }
  command_line(const command_line&) = delete;
  command_line& operator=(const command_line&) = delete;

  explicit operator bool() const { return text_ != nullptr; }
  std::span<const char> bytes() const { return {text_.get(), length_}; }
  std::string_view without_end() const { return {text_.get(), length_ - 2}; }

 private:
  static char* append(char* to, std::string_view text) {
    return static_cast<char*>(mempcpy(to, text.data(), text.size()));
  }

  std::size_t length_;
  unique_malloc<char> text_;
};

}  // namespace

int ftp_command(const dl_ftp_session& session, std::string_view word,
                std::optional<std::string_view> argument, ftp_reply& reply, ftp_expected expected) {
  reply.set_length(0);
  const command_line line(word, argument);
  if (!line) return DL_ERR_MEMORY;
  if (ftp_stream::control(session)->write_all(line.bytes()) < 0) {
    note_symptom(DL_CAUSE_SEND, errno);
    log_line(DL_LOG_FTP, DL_LOG_NOTICE, "write error, errno %d\n", errno);
    const std::string_view shown = word == password_word ? masked_password : line.without_end();
    return log_and_return(DL_LOG_FTP, DL_ERR_SEND, "Error send command %s\r\n\n", printable(shown).c_str());
  }
  return dl_recv_reply(session, reply, expected);
}

}  // namespace fetchrig
