// peers.h: the servers of a story: plays its steps in their order over the network in memory, plain or behind TLS.
#ifndef FETCHRIG_TESTS_SCENARIO_PEERS_H
#define FETCHRIG_TESTS_SCENARIO_PEERS_H

#include <openssl/ssl.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "tests/scenario/network.h"
#include "tests/scenario/script.h"
#include "tests/support/temp_dir.h"

namespace scenario {

// What TLS servers have, made once for each certificate, and the CA directory of the client.
class certificates {
 public:
  explicit certificates(const test::temp_dir& place);
  std::string trusted_dir() const { return trusted_dir_ + "/"; }
  SSL_CTX* context(const std::string& name);

 private:
  using owned_context = std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)>;
  std::string trusted_dir_;
  std::map<std::string, owned_context> contexts_;
};

class conversation : public peers {
 public:
  conversation(const story& told, certificates& known);
  ~conversation() override;
  std::shared_ptr<link> accept(const endpoint& server, bool datagrams) override;
  void play() override;
  int64_t wakes_us() const override { return wakes_us_; }
  // What went otherwise than told; after the call.
  std::vector<std::string> problems();

 private:
  struct party;
  bool advance(const step& now, party& by);
  bool pause(const step& now, const party& by);
  bool take(const step& now, party& by);
  bool take_datagram(const step& now, party& by);
  void put(party& by, const std::string& bytes);
  void end(party& by, bool farewell);
  void problem(const step& at, const std::string& what);
  void start_tls(party& by, const connection& plan);
  static void pump_tls(party& by);

  const story& told_;
  certificates& known_;
  std::vector<std::unique_ptr<party>> parties_;
  std::vector<std::string> problems_;
  std::size_t next_ = 0;     // step
  std::size_t matched_ = 0;  // bytes of it
  int64_t wakes_us_ = 0;     // when it goes on
};

}  // namespace scenario
#endif
