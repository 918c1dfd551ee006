#include "ostreld/Certificate.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <span>
#include <utility>

#include "Containers/Format.h"
#include "Platform/Files.h"
#include "Platform/SocketAddress.h"

namespace ostrel {
namespace {

template <auto release>
struct Release {
  template <class Object>
  void operator()(Object* object) const {
    release(object);
  }
};
using Bio = std::unique_ptr<BIO, Release<BIO_free_all>>;
using Key = std::unique_ptr<EVP_PKEY, Release<EVP_PKEY_free>>;
using Certificate = std::unique_ptr<X509, Release<X509_free>>;
using Extension = std::unique_ptr<X509_EXTENSION, Release<X509_EXTENSION_free>>;

constexpr long secondsInADay = 24L * 60 * 60;
constexpr long validDays = 3650;
constexpr int serialBits = 127;                // RFC 5280: positive, at most 20 bytes
constexpr std::size_t longestCommonName = 64;  // RFC 5280, ub-common-name
constexpr std::size_t largestPemFile = 1024 * 1024;

Bio readerOf(const std::string& pem) { return Bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size()))); }

std::string textOf(BIO* bio) {
  char* bytes = nullptr;
  const long size = BIO_get_mem_data(bio, &bytes);
  return size > 0 ? std::string(bytes, static_cast<std::size_t>(size)) : std::string();
}

Certificate firstCertificate(const std::string& pem) {
  const Bio reader = readerOf(pem);
  Certificate certificate(PEM_read_bio_X509(reader.get(), nullptr, nullptr, nullptr));
  ERR_clear_error();
  return certificate;
}

/// Never asks for a passphrase: a daemon has nobody to ask.
Key firstKey(const std::string& pem) {
  const auto noPassphrase = [](char*, int, int, void*) { return -1; };
  const Bio reader = readerOf(pem);
  Key key(PEM_read_bio_PrivateKey(reader.get(), nullptr, noPassphrase, nullptr));
  ERR_clear_error();
  return key;
}

bool addExtension(X509* certificate, int kind, const std::string& value) {
  X509V3_CTX context;
  X509V3_set_ctx_nodb(&context);
  X509V3_set_ctx(&context, certificate, certificate, nullptr, nullptr, 0);
  const Extension extension(X509V3_EXT_conf_nid(nullptr, &context, kind, value.c_str()));
  return extension && X509_add_ext(certificate, extension.get(), -1) == 1;
}

std::string alternativeNames(const CertificateNames& names) {
  std::string list;
  const auto add = [&list](std::string_view kind, const std::string& name) {
    // A comma would begin another entry of the extension's text form.
    if (name.empty() || name.find_first_of(", \t\r\n") != std::string::npos) return;
    if (!list.empty()) list += ',';
    list.append(kind).append(name);
  };
  for (const std::string& name : names.names) add("DNS:", name);
  for (const std::string& address : names.addresses) {
    if (SocketAddress::ipv4(address) || SocketAddress::ipv6(address)) add("IP:", address);
  }
  return list;
}

bool setRandomSerial(X509* certificate) {
  const std::unique_ptr<BIGNUM, Release<BN_free>> serial(BN_new());
  return serial && BN_rand(serial.get(), serialBits, BN_RAND_TOP_ONE, BN_RAND_BOTTOM_ANY) == 1 &&
         BN_to_ASN1_INTEGER(serial.get(), X509_get_serialNumber(certificate)) != nullptr;
}

bool setSubject(X509* certificate, const CertificateNames& names) {
  const std::string name = names.names.empty() ? "ostreld" : names.names.front().substr(0, longestCommonName);
  X509_NAME* subject = X509_get_subject_name(certificate);
  return X509_NAME_add_entry_by_txt(subject, "CN", MBSTRING_UTF8, reinterpret_cast<const unsigned char*>(name.data()),
                                    static_cast<int>(name.size()), -1, 0) == 1 &&
         X509_set_issuer_name(certificate, subject) == 1;
}

Certificate signedBy(EVP_PKEY* key, const CertificateNames& names) {
  Certificate made(X509_new());
  X509* certificate = made.get();
  const std::string alternatives = alternativeNames(names);
  const bool whole = certificate != nullptr && X509_set_version(certificate, X509_VERSION_3) == 1 &&
                     setRandomSerial(certificate) && setSubject(certificate, names) &&
                     // A day early, so that a client whose clock is behind takes it as valid.
                     X509_gmtime_adj(X509_getm_notBefore(certificate), -secondsInADay) != nullptr &&
                     X509_gmtime_adj(X509_getm_notAfter(certificate), validDays * secondsInADay) != nullptr &&
                     X509_set_pubkey(certificate, key) == 1 &&
                     addExtension(certificate, NID_basic_constraints, "critical,CA:FALSE") &&
                     addExtension(certificate, NID_key_usage, "critical,digitalSignature") &&
                     addExtension(certificate, NID_ext_key_usage, "serverAuth") &&
                     addExtension(certificate, NID_subject_key_identifier, "hash") &&
                     (alternatives.empty() || addExtension(certificate, NID_subject_alt_name, alternatives)) &&
                     X509_sign(certificate, key, EVP_sha256()) > 0;
  return whole ? std::move(made) : nullptr;
}

std::optional<std::string> readPem(const std::string& file, std::string& fault) {
  auto text = readWholeFile(file, largestPemFile);
  if (!text) fault = format("cannot read %s: %s", file, std::strerror(errno));
  return text;
}

bool isCurrent(const Certificate& certificate) {
  return X509_cmp_current_time(X509_get0_notAfter(certificate.get())) > 0;
}

}  // namespace

std::optional<CertificateAndKey> makeSelfSignedCertificate(const CertificateNames& names) {
  const Key key(EVP_EC_gen("P-256"));
  const Certificate certificate = key ? signedBy(key.get(), names) : nullptr;
  const Bio certificateText(BIO_new(BIO_s_mem()));
  const Bio keyText(BIO_new(BIO_s_secmem()));
  if (!certificate || !certificateText || !keyText) return std::nullopt;
  if (PEM_write_bio_X509(certificateText.get(), certificate.get()) != 1) return std::nullopt;
  if (PEM_write_bio_PrivateKey(keyText.get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr) != 1) {
    return std::nullopt;
  }
  return CertificateAndKey{textOf(certificateText.get()), textOf(keyText.get())};
}

std::optional<CertificateAndKey> readCertificateFiles(const std::string& certificateFile, const std::string& keyFile,
                                                      std::string& fault) {
  auto certificateText = readPem(certificateFile, fault);
  if (!certificateText) return std::nullopt;
  auto keyText = readPem(keyFile, fault);
  if (!keyText) return std::nullopt;
  const Certificate certificate = firstCertificate(*certificateText);
  const Key key = firstKey(*keyText);
  const auto status = fileStatus(keyFile);
  if (!certificate) {
    fault = format("%s holds no certificate in PEM form", certificateFile);
  } else if (!key) {
    fault = format("%s holds no private key in PEM form without a passphrase", keyFile);
  } else if (!status || (status->mode & 0077U) != 0) {
    fault = format("%s may be read or written by others than its owner: chmod 600 it", keyFile);
  } else if (X509_check_private_key(certificate.get(), key.get()) != 1) {
    ERR_clear_error();
    fault = format("the key in %s does not belong to the certificate in %s", keyFile, certificateFile);
  } else {
    return CertificateAndKey{std::move(*certificateText), std::move(*keyText)};
  }
  return std::nullopt;
}

std::optional<CertificateAndKey> readOrMakeCertificate(const std::string& file, const CertificateNames& names,
                                                       std::string& fault) {
  if (fileExists(file)) {
    auto kept = readCertificateFiles(file, file, fault);
    if (!kept) {
      fault += "; remove the file to have a new certificate made";
      return std::nullopt;
    }
    if (isCurrent(firstCertificate(kept->certificate))) return kept;
  }
  auto made = makeSelfSignedCertificate(names);
  if (!made) {
    fault = "cannot make a self-signed certificate: the cryptographic library failed";
    return std::nullopt;
  }
  // Key and certificate share one file, so that no crash can leave one without the other.
  if (!writeFileAtomically(file, made->key + made->certificate, {.mode = 0600, .keepExisting = false})) {
    fault = format("cannot write %s: %s", file, std::strerror(errno));
    return std::nullopt;
  }
  return made;
}

std::string certificateFingerprint(const std::string& certificate) {
  const Certificate first = firstCertificate(certificate);
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int size = 0;
  if (!first || X509_digest(first.get(), EVP_sha256(), digest, &size) != 1) return {};
  std::string text;
  for (const unsigned char byte : std::span(digest, size)) text += format("%02X:", byte);
  text.pop_back();
  return text;
}

}  // namespace ostrel
