#include "ostreld/Certificate.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/bio.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <sys/stat.h>

#include "Support/TemporaryFolder.h"
#include "Tools/ChildProcess.h"

namespace ostrel {
namespace {

using ::testing::HasSubstr;
using testing::readFile;
using testing::runProgram;
using testing::TemporaryFolder;
using testing::writeFile;

constexpr const char* openssl = "/usr/bin/openssl";
const CertificateNames names{{"host.example", "localhost", "bad,DNS:evil.example"}, {"127.0.0.1", "::1", "no address"}};

/// The same certificate, which ended a minute ago.
std::string expired(const CertificateAndKey& current) {
  BIO* certificateText = BIO_new_mem_buf(current.certificate.data(), -1);
  BIO* keyText = BIO_new_mem_buf(current.key.data(), -1);
  BIO* out = BIO_new(BIO_s_mem());
  X509* certificate = PEM_read_bio_X509(certificateText, nullptr, nullptr, nullptr);
  EVP_PKEY* key = PEM_read_bio_PrivateKey(keyText, nullptr, nullptr, nullptr);
  X509_gmtime_adj(X509_getm_notAfter(certificate), -60);
  X509_sign(certificate, key, EVP_sha256());
  PEM_write_bio_X509(out, certificate);
  char* bytes = nullptr;
  const auto size = static_cast<std::size_t>(BIO_get_mem_data(out, &bytes));
  std::string text(bytes, size);
  EVP_PKEY_free(key);
  X509_free(certificate);
  for (BIO* bio : {certificateText, keyText, out}) BIO_free(bio);
  return text;
}

TEST(Certificate, IsMadeOnceKeptAndRenewedWhenExpired) {
  const TemporaryFolder folder;
  const std::string file = folder / "ostreld.pem";
  std::string fault;
  const auto made = readOrMakeCertificate(file, names, fault);
  ASSERT_TRUE(made) << fault;
  struct stat status {};
  ASSERT_EQ(stat(file.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777U, 0600U);

  // A second reader, the OpenSSL tool, agrees about what it says.
  const auto text = runProgram({openssl, "x509", "-in", file, "-noout", "-text", "-fingerprint", "-sha256"});
  ASSERT_EQ(text.status, 0) << text.errors;
  EXPECT_THAT(text.output, HasSubstr("CN = host.example"));
  EXPECT_THAT(text.output,
              HasSubstr("DNS:host.example, DNS:localhost, IP Address:127.0.0.1, IP Address:0:0:0:0:0:0:0:1\n"));
  EXPECT_THAT(text.output, HasSubstr("CA:FALSE"));
  EXPECT_THAT(text.output, HasSubstr(certificateFingerprint(made->certificate)));
  EXPECT_EQ(runProgram({openssl, "verify", "-CAfile", file, file}).status, 0);
  EXPECT_EQ(runProgram({openssl, "x509", "-in", file, "-noout", "-checkend", "300000000"}).status, 0);

  const auto kept = readOrMakeCertificate(file, names, fault);
  EXPECT_EQ(certificateFingerprint(kept->certificate), certificateFingerprint(made->certificate));

  const std::string old = folder / "old.pem";
  writeFile(old, made->key + expired(*made));
  chmod(old.c_str(), 0600);
  const auto renewed = readOrMakeCertificate(old, names, fault);
  ASSERT_TRUE(renewed) << fault;
  EXPECT_EQ(runProgram({openssl, "x509", "-in", old, "-noout", "-checkend", "300000000"}).status, 0);
}

TEST(Certificate, SaysWhatIsWrongWithFiles) {
  const TemporaryFolder folder;
  const auto one = makeSelfSignedCertificate(names);
  const auto other = makeSelfSignedCertificate(names);
  ASSERT_TRUE(one && other);
  const auto file = [&folder](const char* name, const std::string& text, mode_t mode) {
    writeFile(folder / name, text);
    chmod((folder / name).c_str(), mode);
    return folder / name;
  };
  const std::string certificate = file("certificate", one->certificate, 0644);
  const std::string key = file("key", one->key, 0600);
  struct Case {
    std::string certificate;
    std::string key;
    const char* fault;
  };
  const Case cases[] = {
      {folder / "missing", key, "cannot read"},
      {certificate, folder / "missing", "cannot read"},
      {file("garbage", "-----BEGIN CERTIFICATE-----\nAAAA\n-----END CERTIFICATE-----\n", 0644), key, "no certificate"},
      {certificate, certificate, "no private key"},
      {certificate, file("open key", one->key, 0640), "chmod 600"},
      {certificate, file("other key", other->key, 0600), "does not belong"},
  };
  for (const Case& c : cases) {
    std::string fault;
    EXPECT_FALSE(readCertificateFiles(c.certificate, c.key, fault));
    EXPECT_THAT(fault, HasSubstr(c.fault));
  }
  std::string fault;
  EXPECT_TRUE(readCertificateFiles(certificate, key, fault)) << fault;
}

}  // namespace
}  // namespace ostrel
