// Debian's slapd for a test: on loopback ports of its own, over a tree that is made for it, all in a temporary folder.
#pragma once

#include <memory>
#include <string>

#include "Containers/PlistValue.h"
#include "Support/TemporaryFolder.h"
#include "Tools/ChildProcess.h"

namespace ostrel::testing {

class TestCertificate;

/// What the tree holds: users "user00000", ... with numbers from 1000 on, passwords "secret00000", ... for the first
/// hundred; groups "group000", ... with numbers from 5000 on and four members each. The first user may change
/// everything.
struct SlapdOptions {
  int users = 20;
  int groups = 5;
  int sizeLimit = 0;                             ///< of answers, for all but the administrator; 0: none
  const TestCertificate* certificate = nullptr;  ///< with one it offers StartTLS and ldaps
};

/// Starts with the object; ended with it, and with the test program whatever happens to that.
class Slapd {
 public:
  explicit Slapd(const SlapdOptions& options = {});
  ~Slapd();
  Slapd(const Slapd&) = delete;
  Slapd& operator=(const Slapd&) = delete;

  static bool isInstalled();
  static constexpr const char* base = "dc=example,dc=org";
  static constexpr const char* administrator = "cn=admin,dc=example,dc=org";  ///< password "administrator"
  static std::string userName(int number);
  static std::string groupName(int number);
  static std::string userIdentifier(int number);  ///< in upper case

  std::string url() const;           ///< ldap://127.0.0.1:PORT
  std::string encryptedUrl() const;  ///< ldaps://127.0.0.1:PORT
  int port() const { return port_; }

  /// Over the same tree and on the same ports.
  void start();
  void stop();
  /// Stops it from answering, and lets it go on (SIGSTOP and SIGCONT).
  void freeze() const;
  void thaw() const { process_->send(SIGCONT); }

  /// Adds entries (LDIF, RFC 2849) to the tree, with whatever attributes they have; restarts it.
  void add(const std::string& entries);

  /// An entry of the nodes' configuration that leads here, bound as the administrator. Its password file is made below
  /// `root`, a host root.
  PlistValue entry(const std::string& root, const std::string& path = "/LDAP/example") const;

 private:
  void configure(const SlapdOptions& options) const;
  void load(const std::string& entries) const;

  TemporaryFolder folder_;
  int port_ = 0;
  int encryptedPort_ = 0;
  std::unique_ptr<ChildProcess> process_;
};

/// Writes the nodes' configuration below a host root.
void writeDirectoryConfiguration(const std::string& root, const PlistValue& configuration);

}  // namespace ostrel::testing
