// client.h: one run of a story: what the library is asked to do and all that can be seen of it.
#ifndef FETCHRIG_TESTS_SCENARIO_CLIENT_H
#define FETCHRIG_TESTS_SCENARIO_CLIENT_H

#include <string.h>

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "include/fetchrig.h"
#include "tests/scenario/faults.h"
#include "tests/scenario/network.h"
#include "tests/scenario/peers.h"
#include "tests/scenario/script.h"
#include "tests/scenario/text.h"
#include "tests/support/temp_dir.h"

namespace scenario {

struct run {
  conditions network;
  const fault* what = nullptr;
  long nth = 0, times = 1;
};

struct outcome {
  int rc = 0, code = 0, read_code = 0;
  std::string message, body;
  std::optional<std::string> file;
  facts told;    // by the words that stories have for it
  facts fields;  // of records
  tree before, after;
  std::vector<log_line> lines;        // of every level
  std::vector<std::string> problems;  // of the conversation
  std::vector<std::string> broken;    // rules that hold in every run
  bool struck = false;                // what the run was to suffer has come
  long num_waits = 0;
  int64_t took_us = 0;
  std::vector<std::shared_ptr<link>> links;
  std::vector<long> counts;  // of each call

  std::vector<log_line> errors() const;
};

// One call of the library, under the plan of the run.
template <typename Call>
auto made(Call one) {
  plan.active = true;
  const auto rc = one();
  plan.active = false;
  return rc;
}

// What a verb works with.
struct call_record {
  const story& told;
  outcome& seen;
  std::string local, upload;
  dl_result result = {untouched_code, ""};
  char redirect[DL_REDIRECT_SIZE] = {};

  // The place, or null where the story says so.
  template <typename Place>
  Place* given(const char* name, Place* place) const {
    const char* nulls = told.argument("null");
    return nulls && strstr(nulls, name) ? nullptr : place;
  }
  const char* word(std::size_t at) const { return at < told.words.size() ? told.words[at].c_str() : nullptr; }
  const char* text(const char* name) const { return told.argument(name); }
  dl_result* result_place() { return given("result", &result); }
  char* redirect_place() { return given("redirect", redirect); }
  const char* local_path() const { return text("to") && !*text("to") ? nullptr : local.c_str(); }
  const char* upload_path() const { return given("file", upload.c_str()); }
  dl_request request() const { return {word(0), text("user"), text("password"), text("proxy")}; }
  dl_http_request http_request(int32_t method) const {
    return {method, word(0), text("user"), text("password"), text("proxy"), text("headers"), text("body")};
  }
  // Makes the call by which the story is judged.
  template <typename Call>
  void make(Call one) {
    seen.rc = made(one);
    seen.code = result.code;
    seen.message.assign(result.message, strnlen(result.message, sizeof result.message));
    seen.told["redirect"] = redirect;
  }
};

class stage {
 public:
  stage();
  outcome play(const story& told, const run& with);
  std::string directory() const { return place_.path(); }

 private:
  void set_options(const story& told);
  test::temp_dir place_;
  certificates certificates_{place_};
};

// What differs from the story's expectations in a run without faults.
std::vector<std::string> complaints(const story& told, const outcome& seen);

}  // namespace scenario
#endif
