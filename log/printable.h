// SPDX-License-Identifier: MIT
// printable.h: making outside text fit for a log line. A format never comes from outside; its arguments pass
// through here. No allocation. Any thread.
#ifndef FETCHRIG_LOG_PRINTABLE_H
#define FETCHRIG_LOG_PRINTABLE_H

#include <string_view>

namespace fetchrig {

// A terminated copy of outside text for a log argument: control characters become "?", and it is cut at 383
// bytes. Null reads as an empty text.
class printable {
 public:
  explicit printable(const char* text) : printable(text ? std::string_view(text) : std::string_view()) {}
  explicit printable(std::string_view text);
  const char* c_str() const { return text_; }

 protected:
  printable() = default;
  void append(std::string_view text);

  char text_[384] = {};
  unsigned length_ = 0;
};

// The same for a URL, with user information shown as "user:******@".
class printable_url : public printable {
 public:
  explicit printable_url(std::string_view url);
  explicit printable_url(const char* url) : printable_url(url ? std::string_view(url) : std::string_view()) {}
};

}  // namespace fetchrig
#endif
