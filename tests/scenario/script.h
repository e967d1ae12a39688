// script.h: scenarios as data. A file holds blocks of lines; each block becomes one scenario, or one for each row of
// its table and each of its variants.
//
//   # to the end of the line: a comment                what begins with a space goes on with the line before
//   == what happens                                    begins a scenario
//   == what happens | a b c                            with a table: {a} is replaced in every line by the cell of each
//   | 1 | two | - |                                    row; a line that uses a cell "-" is left out
//   download http://a.test/f user=u password=p         the call: a verb, what it is about, named arguments; a value
//                                                      with spaces stands in quotes ("X: 1\r\n")
//   with auth=2                                        further arguments of the call; null=redirect,result are the
//                                                      pointers that it gets as null, late=7 the MAX_FILE_SIZE that is
//                                                      set while it connects
//   set MAX_FILE_SIZE 1000, IPV6 1                     options (enum dl_option without its prefix; TLS_WAIT,
//                                                      SIZE_LIMIT and enum dl_extra as EXTRA_REDIRECTS too); `with`,
//                                                      `secret` and `cert` take lists too
//   host b.test = 10.0.0.9 fd00::9                     a name; a.test to z.test are 10.0.0.1 to .26, others unknown
//   secret s3cret                                      no log line may hold it, nor memory that is given back (the
//                                                      last one alone); password= is one by itself
//   fails bind-EADDRINUSE 2 9                          a fault (faults.h) that is part of it, from this call on so
//                                                      many times, or once; without any others
//   alone                                              no faults, cuts and silences are played; a line like those
//                                                      above, or `at`, in front of a file's scenarios is of all
//   let refused = Connect Failed!                     {refused} stands for the text from here on
//   -- login ... do login                             lines that have a name of their own instead of "==", and
//                                                     their place;  5x at {#}  is a line five times, "at 0" to
//                                                     "at 4"
//   at a/b.pem mode=0640 BYTES                         a file {w}/a/b.pem; "at a/" a directory, "at a -> b" a link,
//                                                      "at a fifo" a pipe, "at a zeros=3000 BYTES" a file of so
//                                                      many bytes, these and zeros; what is called "planted" is
//                                                      somebody else's
//   damaged a/b.pem                                    the same again with each fifth byte of that file being another
//   also tls                                           the same again as https, at port 443 instead of 80; in front of
//                                                      a file's scenarios: all that speak plain HTTP, but ...
//   never tls proxy                                    ... those with this line
//   also proxy                                         the same again through a proxy: its first connection
//                                                      (of what goes wrong in variants, each twelfth run is played)
//   also bare                                          `get` again as `read`: by a record with the stated fields only
//
// The other side, in the order in which things happen, whatever the connection:
//   @ a.test:80                 the client connects here; `tls` or `tls=NAME` behind it makes it a TLS server with
//                               that certificate (server, foreign, elsewhere, or the file's own), version=1.2;
//                               `later`: from the line "secure" on; sni=a.test or sni=none is the name that the client
//                               must ask for; `demands` a certificate of it, by `authority`, which is what it trusts;
//                               `udp` makes it datagrams; as=NAME names it; `mute` lets no connection come about;
//                               `interrupted`: a signal comes while the client connects
//   @ NAME                      goes on with that connection
//   @ a.test:80 ask GET /f      connects and asks; both are left out where the call says them: a story that begins
//                               with a later step has met the host of its URL and was asked for its path (and its
//                               body=), or that of tftp-fetch, tftp-read or tftp-send
//   ask PUT /f host=h.test      the head of a request as the library composes it, with this Host (default: the
//                               connection's name); "+ X: y" behind it or in lines that follow are headers;
//                               "= BYTES" adds the Content-Length and the body
//   < text                      exactly this line is received;  << BYTES  these bytes (a datagram, where it is udp)
//   <~ BYTES                    anything up to and with these
//   answer 200 OK = BYTES       the head of a response; "+ X: y" and "= BYTES" as above; "=> BYTES": a body that is
//                               what was read, or the local file, afterwards
//   > text                      sends this line;  >> BYTES  these bytes (a datagram)
//   >> BYTES << BYTES           several of them, also behind "@ NAME"
//   from 5000                   further datagrams come from this port, or from another host: from 10.0.0.9:5000
//   after 5                     so many seconds go by;  signal  interrupts the wait of the client
//   closed | aborted            the client closes its end here; so that it cannot be taken for a regular end
//   hang up | reset | hold | deaf   closes without TLS's farewell; with RST; stays open when the steps are done; takes
//                               nothing from here on. Without one of them a connection ends in good order.
//   take BLOCK BYTES / serve BLOCK BYTES   the blocks of a TFTP transfer and their ACKs, from block 1 on
//
// What comes of it:
//   = -8                        the result's code where it is not 0, -1 being returned; the message is that of the
//                               code unless it follows; "= cleared": -1 with code 0; "= untouched": -1, no result
//                               stored
//   file BYTES | file none | file kept | file special   the local file afterwards (kept: what lay there before, which
//                               is old=BYTES of the call or "old file"; special: no regular file, and still there);
//                               none is it where a call for a file fails and nothing else is said
//   mode 644                    of that file
//   part BYTES                  the part of the local file that is kept for a later call, or none
//   body BYTES   read -8   reads 3 3 1   what was read, the code of the read that failed, the counts of the reads
//   rest BYTES                  what a bare record left in the stream
//   redirect URL   status 200   last 200   end 1   left 5   header X = X: y   ring 6   as the calls tell them;
//                               of `ring`, `reads` is what it returned and `redirect` the path of the file
//   port 1025                   the local port of the datagrams
//   cause 20 1 text             what dl_last_cause() tells: enum dl_cause, number and text; of a call on certificates,
//                               and where all goes well, "0 0" if no line tells it, or "cause any"
//   at a/b.pem BYTES            the file is this afterwards, with the mode of before or mode=; "at a none", "at a any";
//                               all others are as before
//   shows a/b.pem TEXT          what OpenSSL tells of the certificate in it holds this ("with its key":
//                               that is behind it; "verified by NAME")
//   field NAME = TEXT           of the record that the call filled (cert_client.cpp)
//   log 3 HTTP text             the lines of levels 0 to 3, of certificates to 4, exactly these in this order; other
//                               levels: is among them; log any: whatever the errors
//
// A file's certificates are described in front of its stories (cert_table.h).
//
// BYTES may hold \r \n \t \s \0 \\ \xNN and {bytes N} (N bytes of generated content), {bytes N@M} (from its byte M on),
// {repeat N TEXT}, {chunk BYTES}, {md5 TEXT}, {sha256 TEXT}, {sha512-256 TEXT}, {base64 TEXT}, {octets} (all that a
// file's name may hold), {dir}, {w} (the directory of the files that `at` tells of), {got} (the local file), and for
// TFTP {rrq NAME} {wrq NAME} {data N BYTES} {ack N} {oack NAME VALUE} {error N TEXT}.
//
// A new verb: a function in client.cpp and a row in its table. A new step: a word in script.cpp and what becomes of it
// in peers.cpp. A new expectation: a word in script.cpp, and in client.cpp what a run tells by that word.
#ifndef FETCHRIG_TESTS_SCENARIO_SCRIPT_H
#define FETCHRIG_TESTS_SCENARIO_SCRIPT_H

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tests/scenario/network.h"
#include "tests/scenario/tree.h"

namespace scenario {

inline constexpr int untouched_code = 77;  // in the result before the call

using facts = std::map<std::string, std::string>;

struct step {
  std::string what;  // its word; "connect", "close" for those without one
  std::size_t connection;
  std::string bytes = {};
  int line = 0;
};

struct connection {
  endpoint at;
  std::string host;  // as written
  facts with;        // the words behind it and their values

  bool has(const char* word) const { return with.contains(word); }
  std::string certificate() const { return with.at("tls").empty() ? "server" : with.at("tls"); }
};

struct log_line {
  int level = 0;
  std::string module;
  std::string text;
  bool operator==(const log_line&) const = default;
};

struct expectation {
  int code = 0;
  bool fails = false;  // whatever the code
  std::optional<std::string> message;
  facts told;                                               // of the call, by the words for them
  std::vector<std::pair<std::string, std::string>> fields;  // of the records that the call filled
  std::vector<std::pair<std::string, node>> files;          // that are others afterwards
  std::vector<std::pair<std::string, std::string>> shown;   // a file, and what OpenSSL shows of it
  std::vector<log_line> lines;
  bool any_lines = false;
};

struct story {
  std::string name;         // with its row and variant
  bool is_variant = false;  // by "also"
  bool alone = false;
  std::string verb;
  std::vector<std::string> words;  // behind the verb
  facts arguments;
  std::vector<std::pair<std::string, std::string>> options;
  std::map<std::string, std::vector<std::string>> hosts;
  std::vector<std::string> secrets;
  std::vector<connection> connections;
  std::vector<step> steps;
  expectation expected;
  std::vector<std::pair<std::string, node>> files;  // there before the call
  std::string damaged;                              // one of them
  std::vector<std::string> fault;                   // of its own: name, number of the call, how often

  // Null when it was not given.
  const char* argument(const std::string& key) const {
    const auto found = arguments.find(key);
    return found == arguments.end() ? nullptr : found->second.c_str();
  }
  int number(const std::string& key, int otherwise) const {
    const char* text = argument(key);
    return text ? std::stoi(text) : otherwise;
  }
};

// `directory` is what {dir} stands for. A fault in the file ends the program with its line.
std::vector<story> read_stories(const std::string& file, const std::string& directory);

}  // namespace scenario
#endif
