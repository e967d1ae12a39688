// script.cpp: from lines to stories: tables and variants first, then line by line.
#include "tests/scenario/script.h"

#include <stdio.h>
#include <stdlib.h>

#include <algorithm>
#include <fstream>
#include <functional>
#include <set>
#include <stdexcept>
#include <utility>

#include "tests/scenario/cert_table.h"
#include "tests/scenario/text.h"

namespace scenario {
namespace {

using std::string;

struct source_line {
  string text;
  int number;
};

// One block of a file as it stands.
struct block {
  string name;
  std::vector<source_line> lines = {};
  std::vector<string> columns = {};
  std::vector<std::vector<string>> rows = {};
  std::vector<string> variants = {""};
};

void replace_all(string& text, const string& from, const string& to) {
  for (std::size_t at = 0; (at = text.find(from, at)) != string::npos; at += to.size())
    text.replace(at, from.size(), to);
}

std::vector<string> cells_of(const string& line) {
  std::vector<string> cells;
  for (std::size_t at = 1; at < line.size();) {
    const std::size_t end = std::min(line.find('|', at), line.size());
    cells.push_back(trim(line.substr(at, end - at)));
    at = end + 1;
  }
  return cells;
}

std::vector<block> blocks_of(const string& file) {
  std::ifstream in(file);
  if (!in) throw std::runtime_error("cannot read " + file);
  std::vector<block> blocks;
  std::map<string, std::vector<source_line>> named;
  std::map<string, string> texts;
  std::vector<source_line>* into = nullptr;
  int number = 0;
  for (string line; std::getline(in, line);) {
    ++number;
    line.erase(line.find_last_not_of(" \t\r") + 1);
    if (line.empty() || line[0] == '#') continue;
    for (const auto& [name, text] : texts) replace_all(line, "{" + name + "}", text);
    if (line.starts_with("let ")) {
      const std::size_t equals = line.find(" = ");
      texts[line.substr(4, equals - 4)] = line.substr(equals + 3);
      continue;
    }
    const bool of_table = line.starts_with("each ") || line.starts_with("|") || line.starts_with("also ");
    if (line.starts_with("== ")) {
      blocks.push_back({line.substr(3)});
      into = &blocks.back().lines;
    } else if (line.starts_with("-- ")) {
      into = &named[line.substr(3)];
    } else if (!into && line.starts_with("cert ")) {
      define_certificate(line);
    } else if (!into || (of_table && blocks.empty())) {
      throw std::runtime_error(file + ": a line in front of the first scenario");
    } else if (line.starts_with("do ")) {
      const auto& lines = named.at(line.substr(3));
      into->insert(into->end(), lines.begin(), lines.end());
    } else if (line.starts_with("each ")) {
      blocks.back().columns = words_of(line.substr(5));
    } else if (line.starts_with("|")) {
      blocks.back().rows.push_back(cells_of(line));
    } else if (of_table) {
      blocks.back().variants.push_back(line.substr(5));
    } else {
      const std::size_t times = line.find_first_not_of("0123456789");
      const bool repeats = times > 0 && line.substr(times).starts_with("x ");
      into->insert(into->end(), repeats ? std::stoul(line) : 1,
                   {repeats ? line.substr(times + 2) : line, number});
    }
  }
  return blocks;
}

// The lines with the cells of one row in their places.
std::vector<source_line> filled(const block& from, const std::vector<string>& row) {
  if (row.size() != from.columns.size()) throw std::runtime_error(from.name + ": a row of another length");
  std::vector<source_line> lines = {};
  for (source_line line : from.lines) {
    bool left_out = false;
    for (std::size_t i = 0; i < row.size(); ++i) {
      const string place = "{" + from.columns[i] + "}";
      left_out |= row[i] == "-" && line.text.find(place) != string::npos;
      replace_all(line.text, place, row[i]);
    }
    if (!left_out) lines.push_back(line);
  }
  return lines;
}

void make_secure(std::vector<source_line>& lines) {
  for (source_line& line : lines) {
    replace_all(line.text, "http://", "https://");
    if (!line.text.starts_with("@ ") || line.text.find(':') == string::npos) continue;
    if (line.text.ends_with(":80")) line.text.replace(line.text.size() - 2, 2, "443");
    line.text += " tls";
  }
}

// Reads the lines of one story.
class reader {
 public:
  reader(story& into, const places& where) : into_(into), where_(where) {}

  void read(const std::vector<source_line>& lines) {
    for (const source_line& line : lines) {
      line_ = line.number;
      if (line.text.starts_with("+ ")) {
        head_ += bytes(line.text.substr(2)) + "\r\n";
        continue;
      }
      finish_head();
      const std::size_t end = std::min(line.text.find(' '), line.text.size());
      read_line(line.text.substr(0, end), line.text.substr(std::min(end + 1, line.text.size())));
    }
    finish_head();
    close_all();
  }

 private:
  string bytes(const string& text) const { return bytes_of(text, where_); }
  void add(action what, string with = "") {
    if (into_.connections.empty()) throw std::runtime_error("a step without a connection");
    into_.steps.push_back({what, at_, std::move(with), line_});
  }
  void finish_head() {
    if (head_.empty()) return;
    add(head_kind_, std::exchange(head_, {}) + "\r\n");
    if (!body_.empty()) add(head_kind_, std::exchange(body_, {}));
  }
  // "... = BYTES" gives a length and a body.
  void begin_head(action kind, const string& first, const string& standard, const string& rest) {
    const std::size_t equals = rest.find(" =");
    head_kind_ = kind;
    head_ = first + "\r\n" + standard;
    if (equals == string::npos) return;
    body_ = bytes(trim(rest.substr(equals + 2)));
    head_ += "Content-Length: " + std::to_string(body_.size()) + "\r\n";
  }
  void ask(const string& rest) {
    const connection& here = into_.connections.at(at_);
    const std::vector<string> words = words_of(rest.substr(0, rest.find(" =")));
    const bool tls = !here.certificate.empty();
    const string address = here.host.find(':') == string::npos ? here.host : "[" + here.host + "]";
    string host = here.at.port == (tls ? 443 : 80) ? address : address + ":" + std::to_string(here.at.port);
    if (words.size() > 2) host = words[2].substr(words[2].find('=') + 1);
    begin_head(action::expect, words.at(0) + " " + bytes(words.at(1)) + " HTTP/1.1",
               "Host: " + host + "\r\nUser-Agent: Korvane\r\nAccept: */*\r\n" +
                   (tls ? "" : "Connection: Keep-Alive\r\n"),
               rest);
  }
  void connect(const string& rest) {
    const std::vector<string> words = words_of(rest);
    const std::size_t colon = words.at(0).rfind(':');
    for (std::size_t i = 0; colon == string::npos && i < into_.connections.size(); ++i) {
      if (into_.connections[i].name != words[0]) continue;
      at_ = i;
      return;
    }
    if (colon == string::npos) throw std::runtime_error("no connection " + words[0]);
    connection one;
    one.host = words[0].substr(0, colon);
    if (one.host.starts_with('[')) one.host = one.host.substr(1, one.host.size() - 2);
    one.at = {address_of(one.host), std::stoi(words[0].substr(colon + 1))};
    for (std::size_t i = 1; i < words.size(); ++i) {
      if (words[i] == "tls") one.certificate = "server";
      if (words[i].starts_with("tls=")) one.certificate = words[i].substr(4);
      if (words[i].starts_with("version=")) one.version = words[i].substr(8);
      if (words[i] == "udp") one.datagrams = true;
      if (words[i] == "mute") one.mute = true;
      if (words[i] == "interrupted") one.interrupted = true;
      if (words[i] == "as") one.name = words.at(++i);
    }
    at_ = into_.connections.size();
    into_.connections.push_back(one);
    stays_open_.push_back(one.datagrams);
    add(action::connect);
  }
  string address_of(const string& host) const {
    const auto known = into_.hosts.find(host);
    return known == into_.hosts.end() ? host : known->second.at(0);
  }
  void call(const string& verb, const string& rest) {
    into_.verb = verb;
    arguments(rest);
  }
  void arguments(const string& rest) {
    for (const string& word : words_of(rest)) {
      const std::size_t equals = word.find('=');
      const bool named =
          equals != string::npos && std::all_of(word.begin(), word.begin() + static_cast<long>(equals),
                                                [](char c) { return c >= 'a' && c <= 'z'; });
      if (named) {
        into_.arguments[word.substr(0, equals)] = bytes(word.substr(equals + 1));
      } else {
        into_.words.push_back(bytes(word));
      }
    }
    if (const char* password = into_.argument("password"); password && *password)
      into_.secrets.push_back(password);
  }
  // The blocks of a TFTP transfer and their acknowledgements.
  void blocks(bool serve, const string& rest) {
    const std::size_t space = rest.find(' ');
    const std::size_t size = std::stoul(rest);
    const string content = bytes(rest.substr(space + 1));
    for (std::size_t block = 1; (block - 1) * size <= content.size(); ++block) {
      const string number = std::to_string(block);
      const string data = bytes("{data " + number + " }") + content.substr((block - 1) * size, size);
      add(serve ? action::send : action::expect, data);
      add(serve ? action::expect : action::send, bytes("{ack " + number + "}"));
    }
  }
  void result(const string& rest) {
    const std::size_t space = std::min(rest.find(' '), rest.size());
    const string first = rest.substr(0, space);
    into_.expected.fails = first == "untouched" || first == "cleared";
    if (!into_.expected.fails) into_.expected.code = std::stoi(rest);
    if (first == "untouched") into_.expected.code = untouched_code;
    if (space < rest.size()) into_.expected.message = bytes(rest.substr(space + 1));
  }
  void log(const string& rest) {
    if (rest == "any") {
      into_.expected.any_lines = true;
      return;
    }
    const std::vector<string> words = words_of(rest.substr(0, 16));
    const std::size_t at = words.at(0).size() + 1 + words.at(1).size() + 1;
    into_.expected.lines.push_back(
        {std::stoi(words[0]), words[1], bytes(rest.substr(std::min(at, rest.size())))});
  }
  // "PATH [mode=OCTAL] WHAT": before the call, or what is otherwise afterwards.
  void place(string rest) {
    const auto next_word = [&rest] {
      std::size_t end = 0;
      for (int braces = 0; end < rest.size() && (rest[end] != ' ' || braces > 0); ++end)
        braces += (rest[end] == '{') - (rest[end] == '}');
      const string word = rest.substr(0, end);
      rest.erase(0, end + 1);
      return word;
    };
    string path = bytes(next_word());
    node one;
    if (rest.starts_with("mode=")) one.mode = std::stoi(next_word().substr(5), nullptr, 8);
    const std::map<string, entry> words = {{"none", entry::none}, {"any", entry::any}, {"fifo", entry::pipe}};
    if (path.ends_with('/')) {
      one.kind = entry::directory;
      path.pop_back();
    } else if (rest.starts_with("-> ")) {
      one.kind = entry::link;
      one.content = bytes(rest.substr(3));
    } else if (words.contains(rest)) {
      one.kind = words.at(rest);
    } else {
      one.kind = entry::file;
      one.content = bytes(rest);
    }
    (into_.verb.empty() ? into_.files : into_.expected.files).emplace_back(path, one);
  }
  static std::pair<string, string> split(const string& rest, const string& at) {
    const std::size_t found = rest.find(at);
    return {rest.substr(0, found), found == string::npos ? "" : rest.substr(found + at.size())};
  }
  // A connection without a word about its end closes behind its last step.
  void close_all() {
    for (std::size_t i = 0; i < into_.connections.size(); ++i) {
      if (stays_open_[i]) continue;
      const auto last = std::find_if(into_.steps.rbegin(), into_.steps.rend(),
                                     [i](const step& one) { return one.connection == i; });
      into_.steps.insert(last.base(), {action::close, i, "", last->line});
    }
  }
  void ends_by(action what) {
    stays_open_.at(at_) = true;
    add(what);
  }
  void read_line(const string& word, const string& rest) {
    expectation& expected = into_.expected;
    // clang-format off
    const std::map<string, std::function<void()>> known = {
        {"set", [&] { const auto space = rest.find(' ');
                      into_.options.emplace_back(rest.substr(0, space), bytes(rest.substr(space + 1))); }},
        {"host", [&] { auto words = words_of(rest);
                       into_.hosts[words.at(0)] = {words.begin() + 2, words.end()}; }},
        {"with", [&] { arguments(rest); }},
        {"sample", [&] { into_.sample = std::stol(rest); }},
        {"link", [&] { const auto words = words_of(rest);
                       into_.link_files.emplace_back(words.at(0), words.at(1)); }},
        {"sparse", [&] { const auto words = words_of(rest);
                         into_.sparse_files.emplace_back(words.at(0), std::stoll(words.at(1))); }},
        {"fails", [&] { const auto words = words_of(rest);
                        into_.fault = words.at(0);
                        into_.fault_at = std::stol(words.at(1));
                        into_.fault_lasts = words.size() > 2;
                        into_.sample = 0; }},
        {"busy", [&] { into_.num_busy_ports = std::stoi(rest); }},
        {"secret", [&] { into_.secrets.push_back(bytes(rest)); }},
        {"@", [&] { connect(rest); }},
        {"ask", [&] { ask(rest); }},
        {"answer", [&] { begin_head(action::send, "HTTP/1.1 " + bytes(rest.substr(0, rest.find(" ="))), "", rest); }},
        {"<", [&] { add(action::expect, bytes(rest) + "\r\n"); }},
        {"<<", [&] { add(action::expect, bytes(rest)); }},
        {"<~", [&] { add(action::until, bytes(rest)); }},
        {">", [&] { add(action::send, bytes(rest) + "\r\n"); }},
        {">>", [&] { add(action::send, bytes(rest)); }},
        {"from", [&] { add(action::port, rest); }},
        {"after", [&] { add(action::pause, rest); }},
        {"signal", [&] { add(action::signal); }},
        {"closed", [&] { add(action::closed); }},
        {"aborted", [&] { add(action::aborted); }},
        {"hang", [&] { ends_by(action::hang_up); }},
        {"reset", [&] { ends_by(action::reset); }},
        {"hold", [&] { stays_open_.at(at_) = true; }},
        {"deaf", [&] { ends_by(action::deaf); }},
        {"serve", [&] { blocks(true, rest); }},
        {"take", [&] { blocks(false, rest); }},
        {"=", [&] { result(rest); }},
        {"file", [&] {
           const bool is_word = rest == "none" || rest == "kept" || rest == "special";
           expected.file = is_word ? rest : "=" + bytes(rest);
         }},
        {"body", [&] { expected.body = bytes(rest); }},
        {"rest", [&] { expected.rest = bytes(rest); }},
        {"last", [&] { expected.last_status = std::stoi(rest); }},
        {"redirect", [&] { expected.redirect = bytes(rest); }},
        {"read", [&] { expected.read_code = std::stoi(rest); }},
        {"status", [&] { expected.status = std::stoi(rest); }},
        {"end", [&] { expected.end = std::stoi(rest); }},
        {"cause", [&] { expected.cause = rest; }},
        {"port", [&] { expected.port = std::stoi(rest); }},
        {"ring", [&] { expected.ring = std::stoi(rest); }},
        {"left", [&] { expected.left = std::stoll(rest); }},
        {"reads", [&] { expected.reads.emplace();
                        for (const string& one : words_of(rest)) expected.reads->push_back(std::stoi(one)); }},
        {"header", [&] { const auto equals = rest.find(" = ");
                         expected.headers.emplace_back(rest.substr(0, equals), bytes(rest.substr(equals + 3))); }},
        {"at", [&] { place(rest); }},
        {"field", [&] { const auto [name, value] = split(rest, " =");
                        expected.fields.emplace_back(name, bytes(trim(value))); }},
        {"shows", [&] { const auto [file, text] = split(rest, " ");
                      expected.shown.emplace_back(file, bytes(text)); }},
        {"log", [&] { log(rest); }},
    };
    // clang-format on
    static const std::set<string> before_call = {"set",    "host", "sample", "link",
                                                 "sparse", "busy", "fails",  "at"};
    const bool is_call = into_.verb.empty() && !before_call.contains(word);
    const auto found = is_call ? known.end() : known.find(word);
    if (found != known.end()) return found->second();
    if (!into_.verb.empty()) throw std::runtime_error("unknown word " + word);
    call(word, rest);
  }

  story& into_;
  places where_;
  std::size_t at_ = 0;
  int line_ = 0;
  action head_kind_ = action::send;
  string head_, body_;
  std::vector<bool> stays_open_;

 public:
  int line() const { return line_; }
};

// `get` becomes `read`, and of the connection the head of the request and of the answer are gone.
void make_bare(story& told) {
  std::string head;
  std::erase_if(told.steps, [&](const step& one) {
    const bool answers = one.what == action::send && one.bytes.starts_with("HTTP/1.1 ");
    if (answers) head = one.bytes;
    return one.what == action::expect || answers;
  });
  const std::size_t length = head.find("Content-Length: ");
  told.verb = "read";
  told.words = {told.connections.at(0).host + ":" + std::to_string(told.connections.at(0).at.port)};
  told.arguments["flags"] = head.find("chunked") == std::string::npos ? "0" : "1";
  told.arguments["remaining"] =
      length == std::string::npos ? "0" : head.substr(length + 16, head.find("\r\n", length) - length - 16);
  told.expected.status = told.expected.end = std::nullopt;
  told.expected.last_status = std::nullopt;
  told.expected.headers.clear();
}

}  // namespace

std::vector<story> read_stories(const string& file, const string& directory) {
  std::vector<story> stories;
  const auto add = [&](const block& from, const std::vector<string>& row, const string& name) {
    for (const string& variant : from.variants) {
      story told;
      told.name = name + (variant.empty() ? "" : " (" + variant + ")");
      for (char c = 'a'; c <= 'z'; ++c)
        told.hosts[string(1, c) + ".test"] = {"10.0.0." + std::to_string(c - 'a' + 1)};
      std::vector<source_line> lines = filled(from, row);
      if (variant == "tls") make_secure(lines);
      reader in(told, {directory});
      try {
        in.read(lines);
      } catch (const std::exception& error) {
        throw std::runtime_error(file + ":" + std::to_string(in.line()) + ": " + error.what());
      }
      if (variant == "bare") make_bare(told);
      stories.push_back(std::move(told));
    }
  };
  for (const block& from : blocks_of(file)) {
    if (from.columns.empty()) add(from, {}, from.name);
    for (const auto& row : from.rows) add(from, row, from.name + " | " + row.at(0));
  }
  return stories;
}

}  // namespace scenario
