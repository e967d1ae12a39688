// SPDX-License-Identifier: MIT
// exports.cpp: the exported calls on certificates and keys.
#include <algorithm>

#include "cert/ca_info.h"
#include "cert/ca_info_ex.h"
#include "cert/ca_listing.h"
#include "cert/ca_store.h"
#include "cert/client_cert.h"
#include "cert/device_cert.h"
#include "cert/error_queue.h"
#include "cert/keygen.h"
#include "cert/passphrase.h"
#include "cert/subject.h"
#include "cert/verify.h"
#include "cert/verify_problems.h"
#include "core/boundary.h"
#include "core/cause.h"
#include "core/result.h"
#include "include/fetchrig_openssl.h"
#include "log/log.h"

using namespace fetchrig;

namespace {

// At the start of a certificate operation nothing has failed; it leaves OpenSSL's error queue of the thread empty.
class certificate_call {
 public:
  certificate_call() { clear_cause(); }

 private:
  clean_error_queue after_;
};

template <typename Work>
int certificate_operation(int out_of_memory, Work&& work) {
  const certificate_call call;
  return guarded(work, [out_of_memory] { return out_of_memory; });
}

// The calls that remove return 0 whatever happens: only the log and the cause tell that nothing was done.
void removal_ran_out_of_memory() {
  note_cause(DL_CAUSE_COMMAND, -1);
  log_line(DL_LOG_CMN, DL_LOG_ERROR, "Out of memory, nothing is removed\n");
}

int refuse_parameter() {
  clear_cause();
  return log_and_return(DL_LOG_CMN, -1, "Invalid Parameter\n");
}

int refuse_parameter(dl_result* result) {
  refuse_parameter();
  return fail_with_code(result, 1);
}

}  // namespace

int dl_get_ca_info(const char* path, dl_ca_info* info) {
  if (!path || !info) return refuse_parameter();
  return certificate_operation(-2, [&] { return get_ca_info(*info, path); });
}

int dl_get_ca_info_ex(const char* path, dl_ca_info_ex* info, uint32_t flags, dl_result* result) {
  if (!path || !info || !result) return refuse_parameter(result);
  clear_result(*result);
  const int code = certificate_operation(1, [&] { return get_ca_info_ex(*info, path, flags); });
  return code == 0 ? 0 : fail_with_code(result, code);
}

int dl_get_ser_ca_info(dl_ca_info* info) {
  if (!info) return refuse_parameter();
  return certificate_operation(-2, [&] { return get_device_ca_info(*info); });
}

int dl_get_trust_ca_info(dl_trust_ca_list* list) {
  if (!list) return refuse_parameter();
  return certificate_operation(-2, [&] { return list_trusted_cas(*list); });
}

int dl_get_trust_ca_info_ex(dl_trust_ca_list_ex* list, dl_result* result) {
  if (!list || !result) return refuse_parameter(result);
  const certificate_call call;
  return guarded([&] { return list_trusted_cas_ex(*list, *result); },
                 [&] { return fail_with_code(result, 2); });
}

int dl_install_ca(const char* path) {
  return certificate_operation(-1, [&] { return path ? install_ca(path) : -1; });
}

int dl_del_ca(const char* path) {
  const certificate_call call;
  if (path) guarded([&] { remove_ca(path); }, removal_ran_out_of_memory);
  return 0;
}

int dl_install_ser_ca(const char* path) {
  return certificate_operation(set_up_failed, [&] { return install_device_cert(path); });
}

int dl_install_ser_ca_separate(const char* path) {
  return certificate_operation(-1, [&] {
    return path ? install_device_cert_part(path) : log_and_return(DL_LOG_CMN, -1, "Invaild paramter\n");
  });
}

int dl_del_ser_ca(void) {
  clear_cause();
  guarded([] { remove_device_cert(); }, removal_ran_out_of_memory);
  return 0;
}

int dl_generate_client_cert(const char* ca_cert, const char* ca_key, const char* key_file,
                            const char* cert_file, const char* subject, int bits) {
  if (!ca_cert || !ca_key || !key_file || !cert_file || !subject) return refuse_parameter();
  return certificate_operation(
      -1, [&] { return generate_client_cert(ca_cert, ca_key, key_file, cert_file, subject, bits); });
}

int dl_cert_build_rsa_key(const char* path, int bits, EVP_PKEY** key, int* reused) {
  return certificate_operation(-1, [&] {
    if (!path || !key || !reused) return -1;
    device_key result;
    if (build_rsa_key(result, path, bits, nullptr) != 0) return -1;
    if (result.reused) *reused = 1;
    *key = result.key.release();
    return 0;
  });
}

int dl_cert_write_key(const char* path, int /*unused1*/, EVP_PKEY* key, int /*unused2*/) {
  return certificate_operation(-1, [&] { return path && key ? write_key(path, key) : -1; });
}

X509_NAME* do_subject(const char* text, int string_type) {
  return guarded([&] { return subject_name(text, string_type).release(); },
                 []() -> X509_NAME* { return nullptr; });
}

int build_subject(X509_REQ* request, const char* text, int string_type) {
  return guarded([&] { return set_subject(request, text, string_type) ? 1 : 0; }, [] { return 0; });
}

int make_REQ(X509_REQ* request, EVP_PKEY* key, const char* text, int /*unused*/, int string_type) {
  return guarded([&] { return fill_request(request, key, text, string_type); }, [] { return -1; });
}

int dl_cert_verify(const char* path, const char* ca_dir, const char* ca_file, uint32_t flags,
                   dl_result* result) {
  clear_verify_problems();
  if (!result || !path) {
    refuse_parameter();
    return fail_with_text(result, DL_VERIFY_PARAMETER, "");
  }
  const certificate_call call;
  return guarded([&] { return verify_certificate(*result, path, ca_dir, ca_file, flags); },
                 [result] { return fail_with_text(result, DL_VERIFY_SETUP, ""); });
}

int dl_cert_verify_problems(int32_t* numbers, int32_t count) {
  if (!numbers || count < 0) return 0;
  const auto known = verify_problems();
  const auto wanted = known.first(std::min(known.size(), static_cast<std::size_t>(count)));
  std::copy(wanted.begin(), wanted.end(), numbers);
  return static_cast<int>(wanted.size());
}

int cb(int ok, X509_STORE_CTX* context) {
  return on_verification(ok, context);
}

int password_cb(char* buffer, int size, int writing, void* user_data) {
  return option_password_cb(buffer, size, writing, user_data);
}
