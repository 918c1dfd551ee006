#include "ClientSession/OstrelDaemonSession.h"

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <utility>

#include "ClientSession/FormBody.h"
#include "Containers/Base64.h"
#include "Containers/Format.h"
#include "Containers/PropertyList.h"
#include "Containers/Utf8.h"

namespace ostrel {
namespace {

/// The text, or what "%@" prints for an absent one.
std::string_view shown(const std::optional<std::string>& text) { return text ? std::string_view(*text) : "(null)"; }

/// An archive has no keys, so an absent text keeps its place.
PlistValue archived(const std::optional<std::string>& text) { return text ? PlistValue(*text) : PlistValue(false); }

std::optional<std::string> textOf(const PlistValue& value) {
  if (!value.isString()) return std::nullopt;
  return std::string(value.stringValue());
}

}  // namespace

// Construction.

OstrelDaemonSession::OstrelDaemonSession(Private) {}
OstrelDaemonSession::~OstrelDaemonSession() = default;

std::shared_ptr<OstrelDaemonSession> OstrelDaemonSession::init() {
  auto session = std::make_shared<OstrelDaemonSession>(Private());
  session->protocol_ = "https";
  session->port_ = "311";
  session->service_ = "ostrel_sample";
  session->host_ = "localhost";
  return session;
}

std::shared_ptr<OstrelDaemonSession> OstrelDaemonSession::initWithService(Text service, Target notifyTarget,
                                                                          Text notifySelector) {
  auto session = init();
  session->service_ = std::move(service);
  session->setNotifyTarget(std::move(notifyTarget));
  session->notifySelector_ = std::move(notifySelector);
  return session;
}

std::shared_ptr<OstrelDaemonSession> OstrelDaemonSession::initWithServiceSessionID(Text service, Target notifyTarget,
                                                                                   Text notifySelector,
                                                                                   Text sessionID) {
  auto session = initWithService(std::move(service), std::move(notifyTarget), std::move(notifySelector));
  session->_setSessionID(std::move(sessionID));
  return session;
}

std::shared_ptr<OstrelDaemonSession> OstrelDaemonSession::initWithServiceUseGlobalPlexnetLock(
    Text service, Target notifyTarget, Text notifySelector, bool /*useGlobalPlexnetLock*/) {
  return initWithService(std::move(service), std::move(notifyTarget), std::move(notifySelector));
}

std::shared_ptr<OstrelDaemonSession> OstrelDaemonSession::initWithServiceUseGlobalPlexnetLockSessionID(
    Text service, Target notifyTarget, Text notifySelector, bool /*useGlobalPlexnetLock*/, Text sessionID) {
  return initWithServiceSessionID(std::move(service), std::move(notifyTarget), std::move(notifySelector),
                                  std::move(sessionID));
}

std::shared_ptr<OstrelDaemonSession> OstrelDaemonSession::initWithDictionary(const PlistValue& dictionary) {
  auto session = std::make_shared<OstrelDaemonSession>(Private());
  session->protocol_ = textOf(dictionary.get("protocol"));
  session->port_ = textOf(dictionary.get("port"));
  session->service_ = textOf(dictionary.get("service"));
  session->host_ = textOf(dictionary.get("host"));
  session->userName_ = textOf(dictionary.get("userName"));
  session->password_ = textOf(dictionary.get("password"));
  return session;
}

std::shared_ptr<OstrelDaemonSession> OstrelDaemonSession::initWithCoder(const PlistValue& coder) {
  const auto values = coder.elements();
  if (values.size() < 6) return nullptr;
  const bool allKnown = std::ranges::all_of(values.first(6), [](const PlistValue& value) {
    return value.isString() || (value.isBoolean() && !value.boolValue());
  });
  if (!allKnown) return nullptr;
  auto session = init();
  session->protocol_ = textOf(values[0]);
  session->port_ = textOf(values[1]);
  session->service_ = textOf(values[2]);
  session->host_ = textOf(values[3]);
  session->userName_ = textOf(values[4]);
  session->password_ = textOf(values[5]);
  return session;
}

PlistValue OstrelDaemonSession::dictionary() const {
  PlistValue dictionary = PlistValue::mutableDictionary();
  const auto add = [&dictionary](std::string_view key, const Text& text) {
    if (text) dictionary.set(key, *text);
  };
  add("protocol", protocol_);
  add("port", port_);
  add("service", service_);
  add("host", host_);
  add("userName", userName_);
  add("password", password_);
  return dictionary.immutableCopy();
}

bool OstrelDaemonSession::encodeWithCoder(PlistValue coder) const {
  if (!coder.isArray() || !coder.isMutable()) return false;
  for (const Text* text : {&protocol_, &port_, &service_, &host_, &userName_, &password_})
    coder.append(archived(*text));
  return true;
}

std::string OstrelDaemonSession::description() const {
  std::string text = format("<OstrelDaemonSession: 0x%x>", reinterpret_cast<std::uintptr_t>(this));  // NOLINT
  for (const Text* next : {&host_, &service_, &userName_}) {
    if (!*next) break;
    text += "," + **next;
  }
  return text;
}

void OstrelDaemonSession::setNotifyTarget(Target target) {
  hasNotifyTarget_ = target != nullptr;
  notifyTarget_.swap(target);  // the old one goes last: its destructor may look at this session
}

// Session identifier and life cycle.

OstrelDaemonSession::Text OstrelDaemonSession::sessionID() const {
  const MutexLock lock(_sessionIDLock);
  return _sessionID;
}

void OstrelDaemonSession::_setSessionID(Text sessionID) {
  const MutexLock lock(_sessionIDLock);
  _sessionID = std::move(sessionID);
}

void OstrelDaemonSession::deauthenticate() {
  if (_pendingRequestsCount < 1) {
    _setSessionID(std::nullopt);
  } else {
    _askedToDeauthenticate = true;
  }
}

void OstrelDaemonSession::deinit() {
  if (_pendingRequestsCount < 1) {
    setNotifyTarget(nullptr);
  } else {
    _askedToAbort = true;
    _releaseNotifyTarget = true;
  }
}

bool OstrelDaemonSession::didAuthenticationFail(const Text& reason) {
  constexpr std::string_view ending = "authorization required";
  if (!reason || reason->size() < ending.size()) return false;
  return std::equal(ending.begin(), ending.end(), reason->end() - static_cast<std::ptrdiff_t>(ending.size()),
                    [](char expected, char actual) {
                      return expected == (actual >= 'A' && actual <= 'Z' ? static_cast<char>(actual + 32) : actual);
                    });
}

// Helpers of the exchange.

std::optional<CommandURL> OstrelDaemonSession::buildURL(const PlistValue& /*request*/, const Text& prefix,
                                                        const Text& protocol, const Text& host, const Text& port,
                                                        const Text& service) {
  if (prefix) return CommandURL::parse(*prefix);
  std::string text;
  text.append(shown(protocol)).append("://").append(shown(host)).append(":").append(shown(port));
  return CommandURL::parse(text.append("/commands/").append(shown(service)));
}

std::optional<CommandURL> OstrelDaemonSession::buildURL(const PlistValue& request, const Text& prefix) const {
  return buildURL(request, prefix, protocol_.value_or("https"), host_, port_.value_or("311"), service_);
}

OstrelDaemonSession::Text OstrelDaemonSession::buildAuthorizationHeader(const std::optional<CommandURL>& url,
                                                                        const Text& userName, const Text& password) {
  if (!url || !userName || !password) return std::nullopt;
  // ASCII text is its own UTF-8, so that the bytes are right for any user name.
  return "Basic " + encodeBase64(*userName + ":" + *password);
}

OstrelDaemonSession::Text OstrelDaemonSession::buildAuthorizationHeader(const std::optional<CommandURL>& url) const {
  return buildAuthorizationHeader(url, userName_, password_);
}

std::string OstrelDaemonSession::encodeRequest(const PlistValue& request) {
  std::string text;
  if (request.isData()) {
    text = request.dataBytes();
  } else if (request.isDictionary()) {
    text = writeXmlPropertyList(request).value_or("");
  }
  return text.empty() || !isValidUtf8(text) ? std::string() : encodeFormBody(text);
}

PlistValue OstrelDaemonSession::buildNSDictionaryFromResponseData(std::optional<std::string_view> bytes) {
  if (!bytes) return {};
  PlistValue reply = readPropertyList(*bytes);
  if (reply.isDictionary()) return reply;
  // Text that is not UTF-8 makes a null value, which ends the list: the dictionary is then empty, as it is meant.
  return PlistValue::dictionaryOf({{"RawResponse", PlistValue::stringFromUTF8(*bytes)}});
}

}  // namespace ostrel
