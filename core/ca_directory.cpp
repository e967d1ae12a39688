// SPDX-License-Identifier: MIT
// ca_directory.cpp: finds CAs and revocation lists by the hash of their subject or issuer.
#include "core/ca_directory.h"

#include <errno.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <stdio.h>

#include <algorithm>
#include <exception>
#include <new>
#include <string>
#include <string_view>
#include <vector>

#include "core/openssl_owners.h"
#include "core/small_file.h"
#include "core/text.h"

namespace fetchrig {
namespace {

using unique_crl = std::unique_ptr<X509_CRL, openssl_deleter<X509_CRL_free>>;
using unique_method = std::unique_ptr<X509_LOOKUP_METHOD, openssl_deleter<X509_LOOKUP_meth_free>>;

// One for each look-up, with a method of its own: nothing is left in the process when the library is unloaded.
struct ca_lookup {
  unique_method method;
  std::vector<std::string> directories;
};

ca_lookup* data_of(X509_LOOKUP* lookup) {
  return static_cast<ca_lookup*>(X509_LOOKUP_get_method_data(lookup));
}

// The last that OpenSSL does with a look-up and its method.
void free_lookup(X509_LOOKUP* lookup) {
  delete data_of(lookup);
}

unique_x509 next_certificate(BIO* bio) {
  char no_pass_phrase[] = "";
  return unique_x509(PEM_read_bio_X509_AUX(bio, nullptr, nullptr, no_pass_phrase));
}

unique_crl next_crl(BIO* bio) {
  char no_pass_phrase[] = "";
  return unique_crl(PEM_read_bio_X509_CRL(bio, nullptr, nullptr, no_pass_phrase));
}

// Adds what `next` reads, up to the end of the stream; false when that is nothing, or there is something else.
template <typename Next, typename Add>
bool add_all(X509_STORE* store, BIO* bio, Next next, Add add) {
  int count = 0;
  while (const auto object = next(bio)) {
    if (add(store, object.get()) != 1) return false;
    ++count;
  }
  const bool at_end = ERR_GET_REASON(ERR_peek_last_error()) == PEM_R_NO_START_LINE;
  if (count == 0 || !at_end) return false;
  ERR_clear_error();
  return true;
}

bool load_file(X509_STORE* store, X509_LOOKUP_TYPE type, const std::string& path) {
  const small_file file(path.c_str());
  const unique_bio bio = file.stream();
  if (!bio) {
    if (file.error() != ENOENT) ERR_raise_data(ERR_LIB_SYS, file.error(), "reading %s", path.c_str());
    return false;
  }
  return type == X509_LU_CRL ? add_all(store, bio.get(), next_crl, X509_STORE_add_crl)
                             : add_all(store, bio.get(), next_certificate, X509_STORE_add_cert);
}

void load_files(X509_STORE* store, X509_LOOKUP_TYPE type, const std::string& directory, unsigned long hash) {
  const char* const kind = type == X509_LU_CRL ? "r" : "";
  for (unsigned number = 0;; ++number) {
    char name[32];
    snprintf(name, sizeof name, "/%08lx.%s%u", hash, kind, number);
    if (!load_file(store, type, directory + name)) return;
  }
}

// OpenSSL counts a reference of its own for what a look-up gives; the store holds ours.
bool give(X509_OBJECT* known, X509_OBJECT* found) {
  if (X509* certificate = X509_OBJECT_get0_X509(known)) {
    if (X509_OBJECT_set1_X509(found, certificate) != 1) return false;
    X509_free(certificate);
    return true;
  }
  X509_CRL* crl = X509_OBJECT_get0_X509_CRL(known);
  if (!crl || X509_OBJECT_set1_X509_CRL(found, crl) != 1) return false;
  X509_CRL_free(crl);
  return true;
}

bool find_in_store(X509_STORE* store, X509_LOOKUP_TYPE type, const X509_NAME* name, X509_OBJECT* found) {
  X509_STORE_lock(store);
  X509_OBJECT* known = X509_OBJECT_retrieve_by_subject(X509_STORE_get0_objects(store), type, name);
  const bool given = known && give(known, found);
  X509_STORE_unlock(store);
  return given;
}

bool find(X509_LOOKUP* lookup, X509_LOOKUP_TYPE type, const X509_NAME* name, X509_OBJECT* found) {
  int hashed = 0;
  const unsigned long hash = X509_NAME_hash_ex(name, nullptr, nullptr, &hashed);
  X509_STORE* store = X509_LOOKUP_get_store(lookup);
  if (!hashed) return false;
  for (const std::string& directory : data_of(lookup)->directories) {
    load_files(store, type, directory, hash);
    if (!find_in_store(store, type, name, found)) continue;
    ERR_clear_error();  // of files behind the one that counts
    return true;
  }
  return false;
}

// Called by OpenSSL. Without memory nothing is found.
int get_by_subject(X509_LOOKUP* lookup, X509_LOOKUP_TYPE type, const X509_NAME* name, X509_OBJECT* found) {
  const bool is_known_type = type == X509_LU_X509 || type == X509_LU_CRL;
  if (!is_known_type || !name || !data_of(lookup)) return 0;
  try {
    return find(lookup, type, name, found) ? 1 : 0;
  } catch (const std::exception&) {
    ERR_raise(ERR_LIB_X509, ERR_R_MALLOC_FAILURE);
    return 0;
  }
}

void add_directories(std::vector<std::string>& known, std::string_view list) {
  while (!list.empty()) {
    const std::string_view directory = list.substr(0, list.find(':'));
    list.remove_prefix(std::min(directory.size() + 1, list.size()));
    const bool is_new = std::find(known.begin(), known.end(), directory) == known.end();
    if (is_new && !directory.empty()) known.emplace_back(directory);
  }
}

}  // namespace

X509_LOOKUP* add_ca_lookup(X509_STORE* store) {
  unique_method method(X509_LOOKUP_meth_new("small regular files in hashed directories"));
  std::unique_ptr<ca_lookup> data(new (std::nothrow) ca_lookup);
  if (!method || !data) return nullptr;
  X509_LOOKUP_meth_set_free(method.get(), free_lookup);
  X509_LOOKUP_meth_set_get_by_subject(method.get(), get_by_subject);
  X509_LOOKUP* lookup = X509_STORE_add_lookup(store, method.get());
  if (!lookup) return nullptr;
  data->method = std::move(method);
  X509_LOOKUP_set_method_data(lookup, data.release());
  return lookup;
}

bool add_ca_directories(X509_LOOKUP* lookup, const char* list) {
  if (or_empty(list).empty()) {
    ERR_raise(ERR_LIB_X509, X509_R_INVALID_DIRECTORY);
    return false;
  }
  try {
    add_directories(data_of(lookup)->directories, list);
    return true;
  } catch (const std::exception&) {
    ERR_raise(ERR_LIB_X509, ERR_R_MALLOC_FAILURE);
    return false;
  }
}

}  // namespace fetchrig
