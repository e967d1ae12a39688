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

// "1 | 2" in front of and behind the mark.
std::pair<string, string> split(const string& text, const string& mark) {
  const std::size_t at = text.find(mark);
  return {text.substr(0, at), at == string::npos ? "" : text.substr(at + mark.size())};
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

// In a line of these kinds what begins with the mark is a line of its own: "answer 200 OK + X: y", "set A 1, B 2".
struct mark {
  const char *kinds, *text, *next;
};
constexpr mark marks[] = {{" @ ", " ask ", "ask "},
                          {" ask answer + ", " + ", "+ "},
                          {" @ ", " <~ ", "<~ "},
                          {" @ >> << ", " << ", "<< "},
                          {" @ >> << ", " >> ", ">> "},
                          {" = reads status end ", " cause ", "cause "},
                          {" = cause ", " log ", "log "},
                          {" status ", " end ", "end "},
                          {" reads status end ", " left ", "left "},
                          {" reads ", " ring ", "ring "},
                          {" set cert with secret ", ", ", nullptr},
                          {" log ", ", then ", nullptr}};

std::vector<string> parted(const string& line) {
  const std::size_t word = std::min(line.find(' '), line.size());
  std::size_t first = string::npos;
  string rest;
  for (const auto& [kinds, text, next] : marks) {
    const std::size_t at = line.find(text, word);
    if (at >= first || string(kinds).find(" " + line.substr(0, word) + " ") == string::npos) continue;
    first = at;
    const std::size_t tag = line.starts_with("log ") ? line.find(' ', line.find(' ', word + 1) + 1) : word;
    rest = (next ? next : line.substr(0, tag + 1)) + line.substr(at + string(text).size());
  }
  if (first == string::npos) return {line};
  std::vector<string> lines = parted(rest);
  lines.insert(lines.begin(), line.substr(0, first));
  return lines;
}

const std::set<string> before_call = {"alone", "set", "host", "fails", "at", "damaged", "secret"};

std::vector<block> blocks_of(const string& file) {
  std::ifstream in(file);
  if (!in) throw std::runtime_error("cannot read " + file);
  std::vector<block> blocks;
  std::map<string, std::vector<source_line>> named;
  std::map<string, string> texts;
  std::vector<string> of_file = {""};  // variants
  std::vector<source_line>* into = nullptr;
  std::vector<source_line> settings;  // of all stories
  int number = 0;
  for (string line; std::getline(in, line);) {
    ++number;
    for (string more; in.peek() == ' ' && std::getline(in, more); ++number) line += " " + trim(more);
    line.erase(line.find_last_not_of(" \t\r") + 1);
    if (line.empty() || line[0] == '#') continue;
    for (const auto& [name, text] : texts) replace_all(line, "{" + name + "}", text);
    if (line.starts_with("let ")) {
      const std::size_t equals = line.find(" = ");
      texts[line.substr(4, equals - 4)] = line.substr(equals + 3);
      continue;
    }
    const bool of_table = line.starts_with("|") || line.starts_with("also ");
    if (line.starts_with("== ")) {
      const auto [name, columns] = split(line.substr(3), " | ");
      blocks.push_back({.name = name, .lines = settings, .columns = words_of(columns), .variants = of_file});
      into = &blocks.back().lines;
    } else if (line.starts_with("-- ")) {
      into = &named[line.substr(3)];
    } else if (!into && line.starts_with("cert ")) {
      for (const string& part : parted(line)) define_certificate(part);
    } else if (!into && before_call.contains(line.substr(0, line.find(' ')))) {
      for (const string& part : parted(line)) settings.push_back({part, number});
    } else if (!into && line.starts_with("also ")) {
      of_file.push_back(line.substr(5));
    } else if (!into || (of_table && blocks.empty())) {
      throw std::runtime_error(file + ": a line in front of the first scenario");
    } else if (line.starts_with("do ")) {
      const auto& lines = named.at(line.substr(3));
      into->insert(into->end(), lines.begin(), lines.end());
    } else if (line.starts_with("|")) {
      blocks.back().rows.push_back(cells_of(line));
    } else if (line.starts_with("never ")) {
      for (const string& variant : words_of(line.substr(6))) std::erase(blocks.back().variants, variant);
    } else if (of_table) {
      blocks.back().variants.push_back(line.substr(5));
    } else {
      const std::size_t times = line.find_first_not_of("0123456789");
      const bool repeats = times > 0 && line.substr(times).starts_with("x ");
      for (int i = 0; i < (repeats ? std::stoi(line) : 1); ++i) {
        string one = repeats ? line.substr(times + 2) : line;
        replace_all(one, "{#}", std::to_string(i));
        for (const string& part : parted(one)) into->push_back({part, number});
      }
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

const std::set<string> steps = {"<",      ">",      "<<",      ">>",   "<~",    "from", "after", "signal",
                                "secure", "closed", "aborted", "hang", "reset", "hold", "deaf"};
const std::set<string> composed_steps = {"@", "+", "ask", "answer", "serve", "take"};

// What the call says of its connection and its request, for a story that begins with what follows them.
std::vector<string> implied_by(const std::vector<string>& call) {
  static const std::map<string, string> methods = {{"post", "POST"}, {"put", "PUT"}, {"delete", "DELETE"}};
  const string& verb = call.at(0);
  if (verb == "tftp-send") return {"@ " + call.at(1) + ":69 udp", "<< {wrq " + call.at(3) + "}"};
  if (verb.starts_with("tftp-")) return {"@ " + call.at(1) + ":69 udp", "<< {rrq " + call.at(3) + "}"};
  const auto [scheme, place] = split(call.at(1), "://");
  const string host = place.substr(0, place.find('/')), path = place.substr(host.size());
  if (scheme == "ftp") return {"@ " + host + ":21"};
  const auto method = methods.find(verb);
  string asked = (method == methods.end() ? "ask GET " : "ask " + method->second + " ") + path;
  for (const string& word : call)
    if (word.starts_with("body=")) asked += " = " + word.substr(5);
  return {"@ " + host + (scheme == "https" ? ":443 tls" : ":80"), asked};
}

void imply_connection(std::vector<source_line>& lines) {
  const auto word = [](const source_line& line) { return line.text.substr(0, line.text.find(' ')); };
  const auto begins = [&](const source_line& line) { return !before_call.contains(word(line)); };
  const auto acts = [&](const source_line& line) {
    return steps.contains(word(line)) || composed_steps.contains(word(line));
  };
  const auto call = std::find_if(lines.begin(), lines.end(), begins);
  const auto step = std::find_if(call, lines.end(), acts);
  if (step == lines.end() || step->text[0] == '@') return;
  std::vector<source_line> implied;
  for (const string& text : implied_by(words_of(call->text))) implied.push_back({text, step->number});
  lines.insert(step, implied.begin(), implied.end());
}

void make_secure(std::vector<source_line>& lines) {
  for (source_line& line : lines) {
    replace_all(line.text, "http://", "https://");
    if (!line.text.starts_with("@ ") || line.text.find(':') == string::npos) continue;
    if (line.text.ends_with(":80")) line.text.replace(line.text.size() - 2, 2, "443");
    line.text += " tls";
  }
}

// Whether a server is asked over plain HTTP, without a proxy.
bool can_be_other(const std::vector<source_line>& lines) {
  string all;
  for (const source_line& line : lines) all += line.text + "\n";
  const auto holds = [&](const char* text) { return all.find(text) != string::npos; };
  return holds("http://") && holds("\n@ ") && !holds("https://") && !holds("proxy=") && !holds("fails ");
}

// The first connection goes to a proxy, which is asked for what the server was.
void make_proxied(std::vector<source_line>& lines) {
  const auto begins = [](const char* with) {
    return [with](const source_line& line) { return line.text.starts_with(with); };
  };
  const auto at = std::find_if(lines.begin(), lines.end(), begins("@ "));
  const auto ask = std::find_if(lines.begin(), lines.end(), begins("ask "));
  if (at == lines.end()) throw std::runtime_error("no connection for a proxy");
  string host = words_of(at->text).at(1);
  at->text.replace(2, host.size(), "p.test:3128");
  if (host.ends_with(":80")) host.resize(host.size() - 3);
  if (ask != lines.end()) ask->text.insert(std::min(ask->text.find(" ="), ask->text.size()), " host=" + host);
  lines.push_back({"with proxy=http://p.test:3128", at->number});
}

// Reads the lines of one story.
class reader {
 public:
  reader(story& into, const places& where) : into_(into), where_(where) {}

  void read(const std::vector<source_line>& lines) {
    for (const source_line& line : lines) {
      line_ = line.number;
      string rest = line.text;
      const string word = first_word(rest);
      if (word == "+") {
        head_ += bytes(rest) + "\r\n";
      } else {
        finish_head();
        read_line(word, rest);
      }
    }
    finish_head();
    close_all();
    string& file = into_.expected.told["file"];
    if (file == "kept") into_.arguments.emplace("old", "old file");
    if (file == "kept") file = "=" + into_.arguments.at("old");
    static const std::set<string> file_verbs = {"download", "fetch", "ftp-fetch", "tftp-fetch"};
    const bool fails = into_.expected.fails || into_.expected.code != 0;
    if (file.empty() && fails && file_verbs.contains(into_.verb)) file = "none";
    if (file.empty()) into_.expected.told.erase("file");
  }
  int line() const { return line_; }

 private:
  string bytes(const string& text) const { return bytes_of(text, where_); }
  void add(const string& what, const string& with = "") {
    if (into_.connections.empty()) throw std::runtime_error("a step without a connection");
    into_.steps.push_back({what, at_, with, line_});
  }
  void finish_head() {
    if (head_.empty()) return;
    add(head_kind_, std::exchange(head_, {}) + "\r\n");
    if (!body_.empty()) add(head_kind_, std::exchange(body_, {}));
  }
  // `body` is the text behind " =", if there is one.
  void begin_head(const string& kind, const string& first, const string& rest) {
    head_kind_ = kind;
    head_ = first;
    const std::size_t equals = rest.find(" =");
    if (equals == string::npos) return;
    const bool arrives = rest.compare(equals, 3, " =>") == 0;
    body_ = bytes(trim(rest.substr(equals + (arrives ? 3 : 2))));
    const bool is_file = into_.verb == "fetch" || into_.verb == "download";
    if (arrives) into_.expected.told[is_file ? "file" : "body"] = (is_file ? "=" : "") + body_;
    head_ += "Content-Length: " + std::to_string(body_.size()) + "\r\n";
  }
  void ask(const string& rest) {
    const connection& here = into_.connections.at(at_);
    const std::vector<string> words = words_of(split(rest, " =").first);
    const bool tls = here.has("tls");
    string host = here.host.find(':') == string::npos ? here.host : "[" + here.host + "]";
    if (here.at.port != (tls ? 443 : 80)) host += ":" + std::to_string(here.at.port);
    if (words.size() > 2) host = split(words[2], "host=").second;
    const bool tunnel = words.at(0) == "CONNECT";
    if (tunnel) host = words.at(1);
    begin_head("<<",
               words[0] + " " + bytes(words.at(1)) + " HTTP/1.1\r\nHost: " + host +
                   "\r\nUser-Agent: Korvane\r\n" + (tunnel ? "" : "Accept: */*\r\n") +
                   (tls || tunnel ? "" : "Connection: Keep-Alive\r\n"),
               rest);
  }
  void answer(const string& rest) {
    begin_head(">>", "HTTP/1.1 " + bytes(split(rest, " =").first) + "\r\n", rest);
  }
  void connect(const string& rest) {
    const std::vector<string> words = words_of(rest);
    const std::size_t colon = words.at(0).rfind(':');
    if (colon == string::npos) return go_on_with(words[0]);
    connection one;
    one.host = words[0].substr(0, colon);
    if (one.host.starts_with('[')) one.host = one.host.substr(1, one.host.size() - 2);
    const auto known = into_.hosts.find(one.host);
    one.at = {known == into_.hosts.end() ? one.host : known->second.at(0),
              std::stoi(words[0].substr(colon + 1))};
    for (std::size_t i = 1; i < words.size(); ++i) {
      one.with.insert(split(words[i], "="));
    }
    at_ = into_.connections.size();
    into_.connections.push_back(one);
    stays_open_.push_back(one.has("udp"));
    add("connect");
  }
  void go_on_with(const string& name) {
    const auto& all = into_.connections;
    const auto found = std::find_if(all.begin(), all.end(), [&](const connection& one) {
      return one.has("as") && one.with.at("as") == name;
    });
    if (found == all.end()) throw std::runtime_error("no connection " + name);
    at_ = static_cast<std::size_t>(found - all.begin());
  }
  void arguments(const string& rest) {
    for (const string& word : words_of(rest)) {
      const auto [name, value] = split(word, "=");
      const bool named = word.size() > name.size() && name.find_first_not_of(letters) == string::npos;
      if (named) into_.arguments[name] = bytes(value);
      if (!named) into_.words.push_back(bytes(word));
    }
    if (const char* password = into_.argument("password"); password && *password)
      into_.secrets.push_back(password);
  }
  // The blocks of a TFTP transfer and their acknowledgements.
  void blocks(string rest, const string& data_step, const string& ack_step) {
    const std::size_t size = std::stoul(first_word(rest));
    const string content = bytes(rest);
    for (std::size_t block = 1; (block - 1) * size <= content.size(); ++block) {
      const string number = std::to_string(block);
      add(data_step, bytes("{data " + number + " }") + content.substr((block - 1) * size, size));
      add(ack_step, bytes("{ack " + number + "}"));
    }
  }
  void result(string rest) {
    const string first = first_word(rest);
    into_.expected.fails = first == "untouched" || first == "cleared";
    into_.expected.code = first == "untouched" ? untouched_code : first == "cleared" ? 0 : std::stoi(first);
    if (!rest.empty()) into_.expected.message = bytes(rest);
  }
  void log(string rest) {
    if (rest == "any") {
      into_.expected.any_lines = true;
      return;
    }
    const int level = std::stoi(first_word(rest));
    const string module = first_word(rest);
    into_.expected.lines.push_back({level, module, bytes(rest)});
  }
  // "PATH [mode=OCTAL] WHAT": before the call, or what is otherwise afterwards.
  void place(string rest) {
    string path = bytes(first_word(rest));
    node one;
    if (rest.starts_with("mode=")) one.mode = std::stoi(first_word(rest).substr(5), nullptr, 8);
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
      if (rest.starts_with("zeros=")) one.zeros = std::stoll(first_word(rest).substr(6));
      one.content = bytes(rest);
    }
    (into_.verb.empty() ? into_.files : into_.expected.files).emplace_back(path, one);
  }
  // A connection without a word about its end closes behind its last step.
  void close_all() {
    for (std::size_t i = 0; i < into_.connections.size(); ++i) {
      if (stays_open_[i]) continue;
      const auto last = std::find_if(into_.steps.rbegin(), into_.steps.rend(),
                                     [i](const step& one) { return one.connection == i; });
      into_.steps.insert(last.base(), {"close", i, "", last->line});
    }
  }
  void read_line(const string& word, const string& rest) {
    static const std::set<string> of_call = {"file", "mode",   "body",  "rest",   "redirect", "reads",
                                             "read", "status", "last",  "header", "end",      "left",
                                             "ring", "port",   "cause", "part"};
    static const std::map<string, void (*)(reader&, const string&)> others = {
        {"@", [](reader& in, const string& text) { in.connect(text); }},
        {"ask", [](reader& in, const string& text) { in.ask(text); }},
        {"answer", [](reader& in, const string& text) { in.answer(text); }},
        {"serve", [](reader& in, const string& text) { in.blocks(text, ">>", "<<"); }},
        {"take", [](reader& in, const string& text) { in.blocks(text, "<<", ">>"); }},
        {"with", [](reader& in, const string& text) { in.arguments(text); }},
        {"at", [](reader& in, const string& text) { in.place(text); }},
        {"=", [](reader& in, const string& text) { in.result(text); }},
        {"log", [](reader& in, const string& text) { in.log(text); }},
        {"alone", [](reader& in, const string&) { in.into_.alone = true; }},
        {"damaged", [](reader& in, const string& text) { in.into_.damaged = text; }},
        {"secret", [](reader& in, const string& text) { in.into_.secrets.push_back(in.bytes(text)); }},
        {"set", [](reader& in, const string& text) { in.pair(in.into_.options, text, " "); }},
        {"field", [](reader& in, const string& text) { in.pair(in.into_.expected.fields, text, " ="); }},
        {"shows", [](reader& in, const string& text) { in.pair(in.into_.expected.shown, text, " "); }},
        {"host",
         [](reader& in, const string& text) {
           const auto words = words_of(text);
           in.into_.hosts[words.at(0)] = {words.begin() + 2, words.end()};
         }},
        {"fails", [](reader& in, const string& text) { in.into_.fault = words_of(text); }},
    };
    if (into_.verb.empty() && !before_call.contains(word)) {
      into_.verb = word;
      arguments(rest);
    } else if (steps.contains(word)) {
      stays_open_.at(at_) =
          stays_open_.at(at_) || word == "hang" || word == "reset" || word == "hold" || word == "deaf";
      const bool is_line = word == "<" || word == ">";
      add(is_line ? word + word : word, bytes(rest) + (is_line ? "\r\n" : ""));
    } else if (of_call.contains(word)) {
      const auto [name, value] = word == "header" ? split(word + " " + rest, " = ") : std::pair(word, rest);
      const bool is_content = word == "file" && value != "none" && value != "special" && value != "kept";
      into_.expected.told[bytes(name)] = (is_content ? "=" : "") + bytes(value);
    } else if (const auto known = others.find(word); known != others.end()) {
      known->second(*this, rest);
    } else {
      throw std::runtime_error("unknown word " + word);
    }
  }
  using pairs = std::vector<std::pair<string, string>>;
  void pair(pairs& into, const string& rest, const string& mark) const {
    const auto [name, value] = split(rest, mark);
    into.emplace_back(name, bytes(trim(value)));
  }

  static constexpr const char* letters = "abcdefghijklmnopqrstuvwxyz";
  story& into_;
  places where_;
  std::size_t at_ = 0;
  int line_ = 0;
  string head_kind_, head_, body_;
  std::vector<bool> stays_open_;
};

// `get` becomes `read`, and of the connection the head of the request and of the answer are gone.
void make_bare(story& told) {
  std::string head;
  std::erase_if(told.steps, [&](const step& one) {
    const bool answers = one.what == ">>" && one.bytes.starts_with("HTTP/1.1 ");
    if (answers) head = one.bytes;
    return one.what == "<<" || answers;
  });
  const std::size_t length = head.find("Content-Length: ");
  told.verb = "read";
  told.words = {told.connections.at(0).host + ":" + std::to_string(told.connections.at(0).at.port)};
  told.arguments["flags"] = head.find("chunked") == std::string::npos ? "0" : "1";
  told.arguments["remaining"] =
      length == std::string::npos ? "0" : head.substr(length + 16, head.find("\r\n", length) - length - 16);
  std::erase_if(told.expected.told, [](const auto& one) {
    return one.first == "status" || one.first == "end" || one.first == "last" ||
           one.first.starts_with("header");
  });
}

}  // namespace

std::vector<story> read_stories(const string& file, const string& directory) {
  std::vector<story> stories;
  const auto add = [&](const block& from, const std::vector<string>& row, const string& name) {
    for (const string& variant : from.variants) {
      std::vector<source_line> lines = filled(from, row);
      imply_connection(lines);
      if ((variant == "tls" || variant == "proxy") && !can_be_other(lines)) continue;
      story told;
      told.is_variant = !variant.empty();
      told.name = name + (variant.empty() ? "" : " (" + variant + ")");
      for (char c = 'a'; c <= 'z'; ++c)
        told.hosts[string(1, c) + ".test"] = {"10.0.0." + std::to_string(c - 'a' + 1)};
      if (variant == "tls") make_secure(lines);
      if (variant == "proxy") make_proxied(lines);
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
