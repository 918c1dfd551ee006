// The daemon's certificate and private key: read from files, or self-signed and kept below the host root.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace ostrel {

/// PEM texts (RFC 7468). `certificate` may be followed by the rest of its chain.
struct CertificateAndKey {
  std::string certificate;
  std::string key;
};

/// Names and addresses that a self-signed certificate vouches for; the first name becomes the subject.
struct CertificateNames {
  std::vector<std::string> names;
  std::vector<std::string> addresses;  ///< numeric IPv4 or IPv6; others are left out
};

/// Makes an elliptic-curve key (P-256) and a certificate signed by it, valid from a day ago for ten years. Absent when
/// the random generator or the cryptographic library fails.
std::optional<CertificateAndKey> makeSelfSignedCertificate(const CertificateNames& names);

/// Reads both from files; one file may hold both. On failure the result is absent and `fault` says which file, what is
/// wrong with it and what to do. A key that others than its owner may read or write is refused.
std::optional<CertificateAndKey> readCertificateFiles(const std::string& certificateFile, const std::string& keyFile,
                                                      std::string& fault);

/// The self-signed certificate of this host: read from `file`, which holds key and certificate and has mode 0600. When
/// the file is missing or the certificate has expired, a new one is made and the file replaced in one step.
std::optional<CertificateAndKey> readOrMakeCertificate(const std::string& file, const CertificateNames& names,
                                                       std::string& fault);

/// The SHA-256 fingerprint of the first certificate of a PEM text, "AB:CD:..."; empty when there is none.
std::string certificateFingerprint(const std::string& certificate);

}  // namespace ostrel
