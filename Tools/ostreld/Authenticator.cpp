#include "ostreld/Authenticator.h"

#include <algorithm>
#include <exception>
#include <utility>

#include "Containers/Format.h"
#include "Platform/Clock.h"
#include "Platform/SystemLog.h"
#include "ostreld/AuditLine.h"
#include "ostreld/DirectorySignIn.h"

namespace ostrel {
namespace {

/// What a session identifier and its header can carry: the user's part ends at the first "@", and spaces end words.
bool isNameOfASession(const std::string& name) {
  return !name.empty() && std::ranges::none_of(name, [](char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte <= ' ' || byte == 0x7F || c == '@';
  });
}

void logTrouble(const std::string& user, const std::string& from, const std::string& reason) {
  logAt(LogLevel::error, "[%d] sign-in of %s from %s: %s", processId(), quotedForLog(user), from, reason);
}

bool isOrdinary(DirectoryStatus status) {
  return status == directoryStatus::success || status == directoryStatus::userUnknown ||
         status == directoryStatus::passwordRefused;
}

}  // namespace

Authenticator::Authenticator(std::string ownIdentifier, const SessionLimits& sessions, const SignInLimits& signIns)
    : ownIdentifier_(std::move(ownIdentifier)), sessions_(sessions), gate_(signIns) {}

std::optional<Caller> Authenticator::callerWith(std::string_view sessionIdentifier) {
  if (sessionIdentifier.empty()) return std::nullopt;
  if (equalInConstantTime(ownIdentifier_, sessionIdentifier)) {
    return Caller{ownIdentifier_.substr(0, ownIdentifier_.find('@')), ownIdentifier_, "", true};
  }
  const auto session = sessions_.find(sessionIdentifier);
  if (!session) return std::nullopt;
  return Caller{session->user, std::string(sessionIdentifier), session->directoryIdentifier, false};
}

bool Authenticator::coversCredentials(const Caller& caller, const BasicCredentials& credentials) {
  if (caller.isDaemonsOwn) return caller.user == credentials.user;
  const auto session = sessions_.find(caller.sessionIdentifier);
  return session && session->signedInAs == credentials.user;
}

Authenticator::SignIn Authenticator::signIn(const BasicCredentials& credentials, const std::string& peer,
                                            const std::string& from, Caller& caller) {
  const auto begun = Clock::current().monotonic();
  switch (gate_.enter(peer)) {
    case SignInGate::Entry::tooManyFailures:
      return SignIn::tooManyFailures;
    case SignInGate::Entry::tooBusy:
      return SignIn::tooBusy;
    case SignInGate::Entry::open:
      break;
  }
  if (!check(credentials, from, caller)) {
    gate_.leaveRefused(peer, credentials.user, begun);
    return SignIn::refused;
  }
  gate_.leaveAccepted(peer, credentials.user);
  writeAudit({.who = caller.user,
              .from = from,
              .module = {},
              .command = {},
              .outcome = "signed in",
              .duration = Clock::current().monotonic() - begun});
  return SignIn::accepted;
}

/// Every refusal looks the same from outside; what is more than a wrong name or password is logged.
bool Authenticator::check(const BasicCredentials& credentials, const std::string& from, Caller& caller) try {
  DirectoryAccount account;
  const DirectoryStatus status = checkPassword(credentials.user, credentials.password, account);
  if (!isOrdinary(status)) logTrouble(credentials.user, from, format("the directory answers %d", status));
  if (status != directoryStatus::success) return false;
  if (!isNameOfASession(account.user)) {
    logTrouble(credentials.user, from, "the password is right, but no session can carry the record's first name");
    return false;
  }
  const auto identifier = sessions_.begin({account.user, account.identifier, credentials.user});
  if (!identifier) logTrouble(credentials.user, from, "the random device cannot be read");
  if (!identifier) return false;
  caller = {account.user, *identifier, account.identifier, false};
  return true;
} catch (const std::exception& error) {
  logTrouble(credentials.user, from, error.what());
  return false;
}

bool Authenticator::signOut(const Caller& caller) {
  return !caller.isDaemonsOwn && sessions_.end(caller.sessionIdentifier);
}

}  // namespace ostrel
