// The scripted peers, spoken to by programs other than the library.
#include <gtest/gtest.h>

#include "tests/peers/tcp_peer.h"
#include "tests/support/descriptors.h"
#include "tests/support/process.h"
#include "tests/support/temp_dir.h"

namespace test {
namespace {

const std::string request_end = "\r\n\r\n";
const std::string answer_head = "HTTP/1.1 200 OK\r\nContent-Length: 5\r\nConnection: close\r\n\r\n";

run_result fetch(const std::string& url, std::vector<std::string> more = {}) {
  more.insert(more.begin(), {"curl", "-sS", "--noproxy", "*", "--max-time", "20", url});
  return run(more);
}

class scripted_peer : public leak_free {};

TEST_F(scripted_peer, serves_in_every_delivery_and_records_what_it_received) {
  for (const delivery mode : all_deliveries) {
    SCOPED_TRACE(mode);
    tcp_peer server(
        {{expect("GET /a HTTP/1.1\r\n"), expect_until(request_end), send(answer_head), send("hello")}},
        {.mode = mode});
    const run_result result = fetch(server.url("http", "/a"), {"-A", "tester"});
    EXPECT_EQ("hello", result.output) << result.errors;
    EXPECT_TRUE(server.finish());
    EXPECT_NE(std::string::npos, server.received(0).find("User-Agent: tester\r\n")) << server.received(0);
  }
}

TEST_F(scripted_peer, plays_one_script_per_connection_and_repeats_the_last) {
  tcp_peer server(
      {{expect_until(request_end), hang_up()}, {expect_until(request_end), send(answer_head + "again")}},
      {.ipv6 = true, .repeat_last = true});
  EXPECT_EQ(52, fetch(server.url("http", "/")).status);  // curl: the server returned nothing
  EXPECT_EQ("again", fetch(server.url("http", "/")).output);
  EXPECT_EQ("again", fetch(server.url("http", "/")).output);
  EXPECT_EQ(3u, server.num_connections());
}

TEST_F(scripted_peer, tells_what_was_not_as_scripted) {
  tcp_peer server({{expect("PUT "), send("never")}});
  EXPECT_NE(0, fetch(server.url("http", "/x")).status);
  ASSERT_TRUE(server.finish());
  const auto problems = server.problems();
  ASSERT_EQ(1u, problems.size());
  EXPECT_NE(std::string::npos, problems[0].find("expected \"PUT \", got \"GET /x")) << problems[0];
}

TEST_F(scripted_peer, misbehaves_on_demand) {
  const struct {
    const char* name;
    connection_script script;
    int curl_status;
  } cases[] = {
      {"truncated", {expect_until(request_end), send(answer_head + "he")}, 18},
      {"reset", {expect_until(request_end), reset()}, 56},
      {"silent", {stall()}, 28},
      {"bytewise", {expect_until(request_end), send_pieces(answer_head + "hello", 3)}, 0},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(row.name);
    tcp_peer server({row.script});
    EXPECT_EQ(row.curl_status, fetch(server.url("http", "/"), {"--max-time", "1"}).status);
    EXPECT_TRUE(server.finish());
  }
}

TEST_F(scripted_peer, an_unfinished_script_is_reported_within_its_limit) {
  tcp_peer server({{stall()}}, {.limit_ms = 50});
  EXPECT_FALSE(server.finish());
}

TEST(child_process, reports_status_output_and_time_limit) {
  const run_result failed = run({"sh", "-c", "cat; echo problem >&2; exit 7"}, {.input = "text in"});
  EXPECT_EQ(7, failed.status);
  EXPECT_EQ("text in", failed.output);
  EXPECT_EQ("problem\n", failed.errors);
  EXPECT_EQ(127, run({"/no/such/program"}).status);
  EXPECT_EQ(std::nullopt, run({"sleep", "100"}, {}, 20).status);
  EXPECT_EQ("/\n", run({"pwd"}, {.directory = "/"}).output);
  EXPECT_EQ("here\n", run({"sh", "-c", "echo $PLACE"}, {.environment = {"PLACE=here"}}).output);
}

TEST(temp_dir, is_removed_with_what_it_holds) {
  std::string path;
  {
    const temp_dir directory;
    path = directory.path();
    write_file(directory.make_dir("a/b") + "/c", make_bytes(1000));
    EXPECT_EQ(make_bytes(1000), read_file(directory.file("a/b/c")));
    EXPECT_EQ(std::vector<std::string>{"a"}, names_in(path));
  }
  EXPECT_FALSE(file_exists(path));
}

TEST(digests, are_the_known_ones) {
  EXPECT_EQ("900150983cd24fb0d6963f7d28e17f72", md5_hex("abc"));
  EXPECT_EQ("ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad", sha256_hex("abc"));
}

}  // namespace
}  // namespace test
