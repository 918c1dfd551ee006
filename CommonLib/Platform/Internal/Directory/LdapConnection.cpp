#include "Platform/Internal/Directory/LdapConnection.h"

#include <openldap.h>
#include <unistd.h>

#include <algorithm>

#include "Platform/SystemLog.h"

namespace ostrel::detail {
namespace {

using Clock = std::chrono::steady_clock;

// What one answer may bring: a page of large records, but not all memory.
constexpr std::size_t largestAnswer = 64U << 20U;
constexpr ber_len_t largestMessage = 16U << 20U;

DirectoryStatus statusOf(int code) {
  switch (code) {
    case LDAP_NO_SUCH_OBJECT:
      return directoryStatus::recordNotFound;
    case LDAP_ALREADY_EXISTS:
      return directoryStatus::recordExists;
    case LDAP_NO_SUCH_ATTRIBUTE:
      return directoryStatus::noSuchValue;
    case LDAP_TYPE_OR_VALUE_EXISTS:
    case LDAP_CONSTRAINT_VIOLATION:
    case LDAP_INVALID_SYNTAX:
    case LDAP_OBJECT_CLASS_VIOLATION:
    case LDAP_NAMING_VIOLATION:
    case LDAP_NOT_ALLOWED_ON_RDN:
    case LDAP_INVALID_DN_SYNTAX:
      return directoryStatus::invalidValue;
    case LDAP_UNDEFINED_TYPE:
    case LDAP_PROTOCOL_ERROR:
    case LDAP_UNAVAILABLE_CRITICAL_EXTENSION:
    case LDAP_NOT_SUPPORTED:
      return directoryStatus::notSupported;
    case LDAP_INVALID_CREDENTIALS:
      return directoryStatus::passwordRefused;
    case LDAP_INSUFFICIENT_ACCESS:
    case LDAP_STRONG_AUTH_REQUIRED:
    case LDAP_CONFIDENTIALITY_REQUIRED:
    case LDAP_INAPPROPRIATE_AUTH:
    case LDAP_UNWILLING_TO_PERFORM:
      return directoryStatus::permissionDenied;
    case LDAP_REFERRAL:
      return directoryStatus::readOnly;
    case LDAP_SIZELIMIT_EXCEEDED:
    case LDAP_TIMELIMIT_EXCEEDED:
    case LDAP_ADMINLIMIT_EXCEEDED:
      return directoryStatus::limitExceeded;
    case LDAP_BUSY:
      return directoryStatus::busy;
    case LDAP_UNAVAILABLE:
      return directoryStatus::unreachable;
    case LDAP_NO_MEMORY:
      return directoryStatus::outOfMemory;
    default:
      return code < 0 ? directoryStatus::unreachable : directoryStatus::storageFailed;
  }
}

// Those that callers ask for in the course of their work.
bool isRoutine(int code) {
  return code == LDAP_NO_SUCH_OBJECT || code == LDAP_ALREADY_EXISTS || code == LDAP_NO_SUCH_ATTRIBUTE ||
         code == LDAP_INVALID_CREDENTIALS;
}

timeval timeValue(std::chrono::milliseconds time) {
  return {time.count() / 1000, static_cast<suseconds_t>(time.count() % 1000) * 1000};
}

berval bytesOf(const std::string& text) {
  return {static_cast<ber_len_t>(text.size()), const_cast<char*>(text.data())};  // only read
}

// Changes as libldap takes them; points into what it was made from.
class Modifications {
 public:
  Modifications(const std::vector<LdapChange>& changes, bool asEntry) {
    const std::size_t count = changes.size();
    values_.resize(count);
    pointers_.resize(count);
    modifications_.resize(count);
    for (std::size_t at = 0; at < count; ++at) {
      const LdapChange& change = changes[at];
      for (const std::string& value : change.values) values_[at].push_back(bytesOf(value));
      for (berval& value : values_[at]) pointers_[at].push_back(&value);
      pointers_[at].push_back(nullptr);
      LDAPMod& modification = modifications_[at];
      modification.mod_op = (asEntry ? LDAP_MOD_ADD : change.operation) | LDAP_MOD_BVALUES;
      modification.mod_type = const_cast<char*>(change.attribute.c_str());  // only read
      modification.mod_bvalues = change.values.empty() ? nullptr : pointers_[at].data();
      list_.push_back(&modification);
    }
    list_.push_back(nullptr);
  }
  LDAPMod** list() { return list_.data(); }

 private:
  std::vector<std::vector<berval>> values_;
  std::vector<std::vector<berval*>> pointers_;
  std::vector<LDAPMod> modifications_;
  std::vector<LDAPMod*> list_;
};

// A control with the value that its encoder made.
class PageControl {
 public:
  PageControl(LDAP* handle, std::uint32_t size, const std::string& cookie) {
    berval cookieBytes = bytesOf(cookie);
    if (ldap_create_page_control_value(handle, static_cast<ber_int_t>(size), &cookieBytes, &control_.ldctl_value) !=
        LDAP_SUCCESS)
      throw LdapFailure{directoryStatus::outOfMemory};
    control_.ldctl_oid = const_cast<char*>(LDAP_CONTROL_PAGEDRESULTS);  // only read
  }
  ~PageControl() { ber_memfree(control_.ldctl_value.bv_val); }
  PageControl(const PageControl&) = delete;
  PageControl& operator=(const PageControl&) = delete;
  LDAPControl** list() { return list_; }

 private:
  LDAPControl control_{};
  LDAPControl* list_[2] = {&control_, nullptr};
};

void setFlag(LDAP* handle, int option, int value) { ldap_set_option(handle, option, &value); }

}  // namespace

LdapConnection::LdapConnection(const LdapSettings& settings, const LdapServer& server,
                               const LdapCredentials& credentials)
    : url_(server.url), answerTimeout_(settings.answerTimeout), process_(getpid()) {
  const auto deadline = Clock::now() + settings.connectTimeout;
  std::string fault;
  socket_ = LdapSocket::connect(server.host, server.port, deadline, fault);
  if (!socket_) {
    logNotice("[%d] LDAP server %s: %s", processId(), url_, fault);
    throw LdapFailure{directoryStatus::unreachable, true, false};
  }
  const int code = ldap_init_fd(socket_->descriptor(), LDAP_PROTO_EXT, url_.c_str(), &handle_);
  if (code != LDAP_SUCCESS) throw LdapFailure{statusOf(code), true, false};
  try {
    prepare(settings);
    if (server.startTLS) startTLS();
    socket_->allow(std::max(deadline, Clock::now() + settings.connectTimeout), largestAnswer);
    if (server.usesTLS()) installTLS();
    if (!credentials.dn.empty()) bind(credentials, credentials.dn == settings.credentials.dn);
  } catch (...) {
    socket_->stop();
    ldap_unbind_ext(handle_, nullptr, nullptr);
    throw;
  }
}

LdapConnection::~LdapConnection() {
  // Another process's connection must not hear from this one, and one that failed need not.
  if (broken_ || process_ != getpid()) socket_->stop();
  socket_->allow(Clock::now(), 0);
  ldap_unbind_ext(handle_, nullptr, nullptr);
}

// Everything that a user's own configuration files and the environment may have set is set here.
void LdapConnection::prepare(const LdapSettings& settings) {
  Sockbuf* buffer = nullptr;
  ldap_get_option(handle_, LDAP_OPT_SOCKBUF, &buffer);
  if (buffer == nullptr ||
      ber_sockbuf_add_io(buffer, LdapSocket::operations(), LBER_SBIOD_LEVEL_PROVIDER, socket_.get()) != 0)
    throw LdapFailure{directoryStatus::outOfMemory, true, false};
  ber_len_t largest = largestMessage;
  ber_sockbuf_ctrl(buffer, LBER_SB_OPT_SET_MAX_INCOMING, &largest);
  setFlag(handle_, LDAP_OPT_PROTOCOL_VERSION, LDAP_VERSION3);
  setFlag(handle_, LDAP_OPT_DEREF, LDAP_DEREF_NEVER);
  setFlag(handle_, LDAP_OPT_SIZELIMIT, LDAP_NO_LIMIT);
  setFlag(handle_, LDAP_OPT_TIMELIMIT, LDAP_NO_LIMIT);
  ldap_set_option(handle_, LDAP_OPT_REFERRALS, LDAP_OPT_OFF);  // they would lead to servers that nobody chose
  ldap_set_option(handle_, LDAP_OPT_RESTART, LDAP_OPT_ON);
  setFlag(handle_, LDAP_OPT_X_TLS_REQUIRE_CERT, LDAP_OPT_X_TLS_DEMAND);
  setFlag(handle_, LDAP_OPT_X_TLS_REQUIRE_SAN, LDAP_OPT_X_TLS_ALLOW);
  setFlag(handle_, LDAP_OPT_X_TLS_CRLCHECK, LDAP_OPT_X_TLS_CRL_NONE);
  setFlag(handle_, LDAP_OPT_X_TLS_PROTOCOL_MIN, LDAP_OPT_X_TLS_PROTOCOL_TLS1_2);
  ldap_set_option(handle_, LDAP_OPT_X_TLS_CACERTFILE, settings.caFile.c_str());
  for (const int option : {LDAP_OPT_X_TLS_CACERTDIR, LDAP_OPT_X_TLS_CERTFILE, LDAP_OPT_X_TLS_KEYFILE,
                           LDAP_OPT_X_TLS_CIPHER_SUITE, LDAP_OPT_X_TLS_CRLFILE})
    ldap_set_option(handle_, option, nullptr);
}

void LdapConnection::startTLS() {
  try {
    perform([&](int* request) {
      return ldap_extended_operation(handle_, LDAP_EXOP_START_TLS, nullptr, nullptr, nullptr, request);
    });
  } catch (const LdapFailure&) {
    throw LdapFailure{directoryStatus::unreachable, true, false};  // another server may be able to
  }
}

void LdapConnection::installTLS() {
  const int client = 0;
  int code = ldap_set_option(handle_, LDAP_OPT_X_TLS_NEWCTX, &client);
  if (code == LDAP_OPT_SUCCESS) code = ldap_install_tls(handle_);
  if (code == LDAP_SUCCESS) return;
  char* text = nullptr;
  ldap_get_option(handle_, LDAP_OPT_DIAGNOSTIC_MESSAGE, &text);
  const std::unique_ptr<char, decltype(&ldap_memfree)> owned(text, &ldap_memfree);
  logNotice("[%d] LDAP server %s: no encrypted connection: %s", processId(), url_,
            text == nullptr ? ldap_err2string(code) : text);
  throw LdapFailure{directoryStatus::unreachable, true, false};
}

void LdapConnection::bind(const LdapCredentials& credentials, bool areConfigured) {
  berval password = bytesOf(credentials.password);
  const LdapMessages answer = await(send([&](int* request) {
    return ldap_sasl_bind(handle_, credentials.dn.c_str(), LDAP_SASL_SIMPLE, &password, nullptr, nullptr, request);
  }));
  int code = LDAP_OTHER;
  if (ldap_parse_result(handle_, answer.get(), &code, nullptr, nullptr, nullptr, nullptr, 0) != LDAP_SUCCESS)
    fail(LDAP_DECODING_ERROR, nullptr, true);
  if (code == LDAP_SUCCESS) return;
  if (areConfigured)
    logNotice("[%d] LDAP server %s: \"BindDN\" is refused: %s", processId(), url_, ldap_err2string(code));
  switch (code) {
    case LDAP_INVALID_CREDENTIALS:
    case LDAP_INAPPROPRIATE_AUTH:
    case LDAP_INSUFFICIENT_ACCESS:
    case LDAP_UNWILLING_TO_PERFORM:
    case LDAP_CONSTRAINT_VIOLATION:
    case LDAP_NO_SUCH_OBJECT:
      throw LdapFailure{directoryStatus::passwordRefused, false, true};
    default:
      fail(code, nullptr, true);
  }
}

bool LdapConnection::isUsable() const { return !broken_ && process_ == getpid() && !socket_->hasUnexpectedInput(); }

void LdapConnection::fail(int code, const char* text, bool sent) {
  // Negative codes are libldap's own: after them nothing is known about the connection.
  const bool lost = code < 0 || code == LDAP_UNAVAILABLE;
  if (lost) broken_ = true;
  if (!isRoutine(code)) {
    const char* reason = timedOut_ ? "no answer in time" : ldap_err2string(code);
    const bool explained = text != nullptr && *text != '\0';
    logNotice("[%d] LDAP server %s: %s%s%s", processId(), url_, reason, explained ? ": " : "", explained ? text : "");
  }
  throw LdapFailure{statusOf(code), lost, sent};
}

// Sends a request; its number.
template <class Send>
int LdapConnection::send(Send&& operation) {
  socket_->allow(Clock::now() + answerTimeout_, largestAnswer);
  int request = 0;
  const int code = operation(&request);
  if (code != LDAP_SUCCESS) fail(code, nullptr, false);
  return request;
}

LdapMessages LdapConnection::await(int request) {
  socket_->allow(Clock::now() + answerTimeout_, largestAnswer);
  timeval limit = timeValue(answerTimeout_);
  LDAPMessage* messages = nullptr;
  const int kind = ldap_result(handle_, request, LDAP_MSG_ALL, &limit, &messages);
  LdapMessages owned(messages);
  if (kind > 0 && messages != nullptr) return owned;
  timedOut_ = kind == 0 || socket_->timedOut();
  int code = LDAP_TIMEOUT;
  if (kind < 0) ldap_get_option(handle_, LDAP_OPT_RESULT_CODE, &code);
  fail(code < 0 ? code : LDAP_SERVER_DOWN, nullptr, true);
}

// The code of an answer that was successful or says that there is no such object; throws for others.
int LdapConnection::resultOf(LDAPMessage* messages, std::string* cookie) {
  int code = LDAP_OTHER;
  char* text = nullptr;
  LDAPControl** controls = nullptr;
  const int parsed = ldap_parse_result(handle_, messages, &code, nullptr, &text, nullptr, &controls, 0);
  const std::unique_ptr<char, decltype(&ldap_memfree)> ownedText(text, &ldap_memfree);
  const std::unique_ptr<LDAPControl*, decltype(&ldap_controls_free)> ownedControls(controls, &ldap_controls_free);
  if (parsed != LDAP_SUCCESS) fail(LDAP_DECODING_ERROR, nullptr, true);
  if (code != LDAP_SUCCESS && code != LDAP_NO_SUCH_OBJECT) fail(code, text, true);
  LDAPControl* page = cookie == nullptr ? nullptr : ldap_control_find(LDAP_CONTROL_PAGEDRESULTS, controls, nullptr);
  if (page != nullptr) {
    ber_int_t estimate = 0;
    berval bytes{0, nullptr};
    if (ldap_parse_pageresponse_control(handle_, page, &estimate, &bytes) != LDAP_SUCCESS)
      fail(LDAP_DECODING_ERROR, nullptr, true);
    cookie->assign(bytes.bv_val == nullptr ? "" : bytes.bv_val, bytes.bv_len);
    ber_memfree(bytes.bv_val);
  }
  return code;
}

template <class Send>
void LdapConnection::perform(Send&& operation) {
  const LdapMessages answer = await(send(operation));
  if (resultOf(answer.get()) != LDAP_SUCCESS) fail(LDAP_NO_SUCH_OBJECT, nullptr, true);
}

int LdapConnection::startPage(const LdapQuery& query, std::uint32_t size, const std::string& cookie) {
  std::vector<char*> attributes;
  for (const std::string& name : query.attributes) attributes.push_back(const_cast<char*>(name.c_str()));  // only read
  attributes.push_back(nullptr);
  std::unique_ptr<PageControl> control;
  if (size != 0) control = std::make_unique<PageControl>(handle_, size, cookie);
  return send([&](int* request) {
    return ldap_search_ext(handle_, query.base.c_str(), query.scope, query.filter.c_str(), attributes.data(), 0,
                           control ? control->list() : nullptr, nullptr, nullptr, LDAP_NO_LIMIT, request);
  });
}

LdapConnection::Page LdapConnection::finishPage(int request) {
  Page page{await(request), {}};
  if (resultOf(page.messages.get(), &page.cookie) == LDAP_NO_SUCH_OBJECT) page.messages.reset();
  return page;
}

void LdapConnection::add(const std::string& dn, const std::vector<LdapChange>& attributes) {
  Modifications list(attributes, true);
  perform([&](int* request) { return ldap_add_ext(handle_, dn.c_str(), list.list(), nullptr, nullptr, request); });
}

void LdapConnection::modify(const std::string& dn, const std::vector<LdapChange>& changes) {
  Modifications list(changes, false);
  perform([&](int* request) { return ldap_modify_ext(handle_, dn.c_str(), list.list(), nullptr, nullptr, request); });
}

void LdapConnection::rename(const std::string& dn, const std::string& relativeName) {
  perform([&](int* request) {
    return ldap_rename(handle_, dn.c_str(), relativeName.c_str(), nullptr, 1, nullptr, nullptr, request);
  });
}

void LdapConnection::remove(const std::string& dn) {
  perform([&](int* request) { return ldap_delete_ext(handle_, dn.c_str(), nullptr, nullptr, request); });
}

void LdapConnection::setPassword(const std::string& dn, const std::string& password) {
  berval user = bytesOf(dn);
  berval fresh = bytesOf(password);
  perform([&](int* request) { return ldap_passwd(handle_, &user, nullptr, &fresh, nullptr, nullptr, request); });
}

}  // namespace ostrel::detail
