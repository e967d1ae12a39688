/* SPDX-License-Identifier: MIT */
/* certificate.c: describes a certificate and tells whether it would be trusted.
 *   certificate FILE CA-DIR
 *   cc certificate.c $(pkg-config --cflags --libs fetchrig) -o certificate */
#include "common.h"

/* Texts of the record are cut to 63 characters. A file in DER is rewritten as PEM: give a copy when that matters. */
static int describe(const char* file) {
  dl_ca_info_ex info = {0}; /* the call fills what it finds and clears nothing */
  dl_result result = {0, ""};
  if (dl_get_ca_info_ex(file, &info, 1, &result) != 0) return failed(file, &result);
  printf("subject     %s\nissuer      %s\n", info.subject, info.issuer);
  printf("valid       %s to %s\n", info.not_before, info.not_after);
  printf("serial      %s, version %d, %d extensions\n", info.serial, info.version, info.ext_count);
  printf("signature   %s\nkey         %s, %d bits\n", info.sig_alg, info.key_alg, (int)info.key_bits);
  if (info.priv_bits != 0) printf("private key %s, %d bits\n", info.priv_alg, (int)info.priv_bits);
  return 0;
}

/* A few problems are let pass, a self-signed certificate above all, and with them the call returns 0 as well. What is
 * not to be trusted blindly must verify without any. */
static int verify(const char* file, const char* ca_dir) {
  int32_t problems[DL_MAX_VERIFY_PROBLEMS];
  dl_result result = {0, ""};
  fflush(stdout);
  /* Trusted are the CAs in the directory and, as no file of CAs is named, those in OpenSSL's own (cert.pem, which few
   * systems have). The call writes "FILE: " to standard output. */
  const int rc = dl_cert_verify(file, ca_dir, NULL, 0, &result);
  const int count = dl_cert_verify_problems(problems, DL_MAX_VERIFY_PROBLEMS);
  if (rc == 0 && count == 0) return puts("trusted"), 0;
  printf("not trusted, code %d;", (int)result.code);                       /* enum dl_cert_verify_code */
  for (int i = 0; i < count; ++i) printf(" problem %d", (int)problems[i]); /* openssl/x509_vfy.h names them */
  putchar('\n');
  return 1;
}

int main(int argc, char** argv) {
  if (argc != 3) return fprintf(stderr, "usage: certificate FILE CA-DIR\n"), 2;
  dl_config_init();
  dl_log_init(0, NULL); /* the record and the verdict say all */
  int status = describe(argv[1]);
  if (status == 0) status = verify(argv[1], argv[2]);
  dl_exit();
  return status;
}
