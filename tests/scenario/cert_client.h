// cert_client.h: what the library does with certificates, keys and their store, as verbs; each is played in a
// directory of its own, whose files before and afterwards are told by the story.
#ifndef FETCHRIG_TESTS_SCENARIO_CERT_CLIENT_H
#define FETCHRIG_TESTS_SCENARIO_CERT_CLIENT_H

#include <string>
#include <vector>

#include "tests/scenario/client.h"

namespace scenario {

bool is_certificate_call(const story& told);
// In the story's directory, which has been planted; options are set.
void play_certificate_call(call_record& call, const std::string& directory);
// The rules of a run with a fault.
std::vector<std::string> broken_certificate_rules(const story& told, const outcome& whole,
                                                  const outcome& seen);
// Those of a run with a damaged file.
std::vector<std::string> broken_damage_rules(const story& told, const outcome& seen);
// What the certificates and keys that were written do not show.
std::vector<std::string> unshown(const story& told, const outcome& seen);

}  // namespace scenario
#endif
