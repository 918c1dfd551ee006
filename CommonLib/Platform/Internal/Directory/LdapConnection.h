// One connection to an LDAP server (RFC 4511): every operation ends within the configured time.
#pragma once

#include <ldap.h>
#include <sys/types.h>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/DirectoryTypes.h"
#include "Platform/Internal/Directory/LdapSettings.h"
#include "Platform/Internal/Directory/LdapSocket.h"

namespace ostrel::detail {

/// What operations here throw.
struct LdapFailure {
  DirectoryStatus status = directoryStatus::storageFailed;
  bool lost = false;  ///< the connection is over
  bool sent = true;   ///< the server may have got the request
};

/// Runs what works on a server; a failure of it becomes its status.
template <class Work>
DirectoryStatus onServer(Work&& work) {
  try {
    work();
    return directoryStatus::success;
  } catch (const LdapFailure& failure) {
    // Nobody's password was asked for: it is that of the configuration, or of a former authentication.
    return failure.status == directoryStatus::passwordRefused ? directoryStatus::permissionDenied : failure.status;
  }
}

/// What to search for.
struct LdapQuery {
  std::string base;
  int scope = LDAP_SCOPE_SUBTREE;
  std::string filter;
  std::vector<std::string> attributes;
};

/// One change of an entry's attribute. Without values a deletion takes the whole attribute.
struct LdapChange {
  int operation = LDAP_MOD_REPLACE;
  std::string attribute;
  std::vector<std::string> values;
};

struct FreeLdapMessage {
  void operator()(LDAPMessage* message) const { ldap_msgfree(message); }
};
using LdapMessages = std::unique_ptr<LDAPMessage, FreeLdapMessage>;

/// Threads: one at a time.
class LdapConnection {
 public:
  /// Connects, encrypts and binds. Throws LdapFailure; a connection that could not be had is told as `unreachable`,
  /// credentials that were refused as `passwordRefused`.
  LdapConnection(const LdapSettings& settings, const LdapServer& server, const LdapCredentials& credentials);
  ~LdapConnection();
  LdapConnection(const LdapConnection&) = delete;
  LdapConnection& operator=(const LdapConnection&) = delete;

  const std::string& url() const { return url_; }
  /// Whether an answer did not come in time.
  bool timedOut() const { return timedOut_; }
  LDAP* handle() const { return handle_; }
  /// Whether another operation may go over it: nothing failed, and the server did not hang up meanwhile.
  bool isUsable() const;
  /// For a connection on which an answer is still under way that nobody waits for any more.
  void giveUp() { broken_ = true; }

  /// Sends a search for one page (RFC 2696) behind the cookie of the former one, or for everything when `size` is 0.
  /// Other operations may go over the connection until it is waited for.
  int startPage(const LdapQuery& query, std::uint32_t size, const std::string& cookie);
  struct Page {
    LdapMessages messages;
    std::string cookie;  ///< empty: there is no other page
  };
  /// Waits for what was sent. A base that does not exist is an empty page.
  Page finishPage(int request);
  Page search(const LdapQuery& query) { return finishPage(startPage(query, 0, {})); }

  void add(const std::string& dn, const std::vector<LdapChange>& attributes);
  void modify(const std::string& dn, const std::vector<LdapChange>& changes);
  /// Gives an entry another relative name, below the same parent, and takes the former one from its attributes.
  void rename(const std::string& dn, const std::string& relativeName);
  void remove(const std::string& dn);
  /// The password modify operation (RFC 3062): the server hashes as it is configured to.
  void setPassword(const std::string& dn, const std::string& password);

 private:
  void prepare(const LdapSettings& settings);
  void startTLS();
  void installTLS();
  void bind(const LdapCredentials& credentials, bool areConfigured);

  template <class Send>
  int send(Send&& operation);
  LdapMessages await(int request);
  int resultOf(LDAPMessage* messages, std::string* cookie = nullptr);
  template <class Send>
  void perform(Send&& operation);
  [[noreturn]] void fail(int code, const char* text, bool sent);

  const std::string url_;
  const std::chrono::milliseconds answerTimeout_;
  const pid_t process_;
  std::unique_ptr<LdapSocket> socket_;
  LDAP* handle_ = nullptr;
  bool broken_ = false;
  bool timedOut_ = false;
};

}  // namespace ostrel::detail
