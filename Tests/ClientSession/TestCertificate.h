// Certificates that the tests make for themselves.
#pragma once

#include <openssl/evp.h>
#include <openssl/x509.h>

#include <memory>
#include <string>

namespace ostrel::testing {

/// A fresh key and a certificate for it that it signed itself.
class TestCertificate {
 public:
  enum class Validity { current, expired };
  enum class Kind { p256, rsa2048 };

  /// `alternativeNames` as OpenSSL spells them, for example "DNS:localhost,IP:127.0.0.1".
  explicit TestCertificate(const std::string& alternativeNames, Validity validity = Validity::current,
                           Kind kind = Kind::p256);

  EVP_PKEY* key() const { return key_.get(); }
  X509* certificate() const { return certificate_.get(); }
  std::string pem() const;

 private:
  std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key_;
  std::unique_ptr<X509, decltype(&X509_free)> certificate_;
};

/// The certificates of a test program, all made out to localhost and 127.0.0.1. `trusted` and `expired` are in the
/// store that verifying connections of this process read (SSL_CERT_FILE is set on the first call), `stranger` is not.
struct TestCertificates {
  static const TestCertificates& shared();

  TestCertificate trusted{"DNS:localhost,IP:127.0.0.1"};
  TestCertificate expired{"DNS:localhost,IP:127.0.0.1", TestCertificate::Validity::expired};
  TestCertificate stranger{"DNS:localhost,IP:127.0.0.1"};
};

}  // namespace ostrel::testing
