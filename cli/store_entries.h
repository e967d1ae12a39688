// SPDX-License-Identifier: MIT
// store_entries.h: the names in a trusted-CA store. An installed CA has a file named after its hash, a link HASH.0 to
// it, and a link ca/HASH.0 to that one. Stores are directories with "/" at their end. One thread.
#ifndef FETCHRIG_CLI_STORE_ENTRIES_H
#define FETCHRIG_CLI_STORE_ENTRIES_H

#include <string>
#include <vector>

namespace fetchrig::cli {

// True for a name in a directory, also that of a link that leads nowhere,
// and for one in a directory that tells nothing.
bool name_exists(const std::string& path);

// What a listing looks at, and removes when it is no certificate: every name with ".0" in it.
std::vector<std::string> listed_names(const std::string& store);

// Those of them that are no entries of a store.
std::vector<std::string> foreign_among(const std::vector<std::string>& names);
std::string foreign_words(const std::vector<std::string>& foreign);

// Every name that an installed CA has.
std::vector<std::string> names_of(const std::string& store, const std::string& hash);

// Printable, with commas between them.
std::string joined(const std::vector<std::string>& names);

// Why the store cannot be opened, as words that go on a message; empty when it can.
std::string opening_trouble(const std::string& store);

// How the entry's links lead to it: "absolute" when one of them carries the store's path, which a copy of the store
// would leave; "relative"; "none" where there are files.
std::string link_kind(const std::string& store, const std::string& entry);

// Makes the absolute links to names in the store relative, also those that a moved store has left behind: its copies
// work wherever they are. Throws failure when one cannot be replaced.
void make_relocatable(const std::string& store);

}  // namespace fetchrig::cli
#endif
