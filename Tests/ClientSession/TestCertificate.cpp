#include "ClientSession/TestCertificate.h"

#include <openssl/bio.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>
#include <stdlib.h>

#include <stdexcept>

#include "Support/TemporaryFolder.h"

namespace ostrel::testing {
namespace {

void require(bool succeeded) {
  if (!succeeded) throw std::runtime_error("cannot make a certificate");
}

void addExtension(X509* certificate, int kind, const std::string& value) {
  X509V3_CTX context;
  X509V3_set_ctx_nodb(&context);
  X509V3_set_ctx(&context, certificate, certificate, nullptr, nullptr, 0);
  const std::unique_ptr<X509_EXTENSION, decltype(&X509_EXTENSION_free)> extension(
      X509V3_EXT_conf_nid(nullptr, &context, kind, value.c_str()), X509_EXTENSION_free);
  require(extension != nullptr && X509_add_ext(certificate, extension.get(), -1) == 1);
}

}  // namespace

TestCertificate::TestCertificate(const std::string& alternativeNames, Validity validity, Kind kind)
    : key_(kind == Kind::p256 ? EVP_EC_gen("P-256") : EVP_RSA_gen(2048), EVP_PKEY_free),
      certificate_(X509_new(), X509_free) {
  static long serial = 0;
  X509* certificate = certificate_.get();
  require(key_ != nullptr && certificate != nullptr && X509_set_version(certificate, 2) == 1);
  ASN1_INTEGER_set(X509_get_serialNumber(certificate), ++serial);
  const long day = 24L * 60 * 60;
  X509_gmtime_adj(X509_getm_notBefore(certificate), -2 * day);
  X509_gmtime_adj(X509_getm_notAfter(certificate), validity == Validity::expired ? -day : day);
  const std::string name = "test " + std::to_string(serial);
  X509_NAME* subject = X509_get_subject_name(certificate);
  require(X509_NAME_add_entry_by_txt(subject, "CN", MBSTRING_UTF8, reinterpret_cast<const unsigned char*>(name.c_str()),
                                     -1, -1, 0) == 1);
  require(X509_set_issuer_name(certificate, subject) == 1 && X509_set_pubkey(certificate, key_.get()) == 1);
  addExtension(certificate, NID_subject_alt_name, alternativeNames);
  require(X509_sign(certificate, key_.get(), EVP_sha256()) > 0);
}

std::string TestCertificate::pem() const {
  const std::unique_ptr<BIO, decltype(&BIO_free)> memory(BIO_new(BIO_s_mem()), BIO_free);
  require(memory != nullptr && PEM_write_bio_X509(memory.get(), certificate()) == 1);
  char* bytes = nullptr;
  const long size = BIO_get_mem_data(memory.get(), &bytes);
  return {bytes, static_cast<std::size_t>(size)};
}

const TestCertificates& TestCertificates::shared() {
  static const TestCertificates certificates;
  static const TemporaryFolder folder;
  static const bool stored = [] {
    writeFile(folder / "roots.pem", certificates.trusted.pem() + certificates.expired.pem());
    return setenv("SSL_CERT_FILE", (folder / "roots.pem").c_str(), 1) == 0;
  }();
  require(stored);
  return certificates;
}

}  // namespace ostrel::testing
