#include "ostreld/Authorization.h"

#include <algorithm>
#include <optional>
#include <utility>

#include "Platform/SystemLog.h"

namespace ostrel {
namespace {

constexpr std::string_view administrators = "admin";
constexpr std::string_view everyCommand = "*";

/// What makes the whole file unusable.
struct Fault {
  std::string text;
};

bool holds(const std::vector<std::string>& texts, std::string_view text) {
  return std::ranges::find(texts, text) != texts.end();
}

std::vector<std::string> textsIn(const PlistValue& array, const char* where) {
  if (!array.isArray()) throw Fault{std::string("has ") + where + " that are no array"};
  std::vector<std::string> texts;
  for (const PlistValue& text : array.elements()) {
    if (!text.isString() || text.stringValue().empty()) throw Fault{std::string("has ") + where + " that are no texts"};
    texts.emplace_back(text.stringValue());
  }
  return texts;
}

AuthorizationRule ruleFrom(const PlistValue& value) {
  if (!value.isDictionary()) throw Fault{"has a rule that is no dictionary"};
  AuthorizationRule rule;
  for (const PlistEntry& entry : value.entries()) {
    if (entry.keyText() == "Users") {
      rule.users = textsIn(entry.value, "\"Users\"");
    } else if (entry.keyText() == "Groups") {
      rule.groups = textsIn(entry.value, "\"Groups\"");
    } else if (entry.keyText() == "Commands" && entry.value.isDictionary()) {
      for (const PlistEntry& module : entry.value.entries())
        rule.modules.push_back({std::string(module.keyText()), textsIn(module.value, "commands of a module")});
    } else {
      throw Fault{"has a rule with a \"" + std::string(entry.keyText()) + "\" that means nothing"};
    }
  }
  return rule;
}

AuthorizationRules rulesFrom(const std::string& file) {
  std::string fault;
  const PlistValue configuration = readTrustedPropertyList(file, fault);
  if (configuration.isNull()) throw Fault{fault};
  AuthorizationRules rules;
  for (const PlistEntry& entry : configuration.entries()) {
    if (entry.keyText() != "Rules" || !entry.value.isArray()) {
      throw Fault{"has a \"" + std::string(entry.keyText()) + "\" that means nothing"};
    }
    for (const PlistValue& rule : entry.value.elements()) rules.push_back(ruleFrom(rule));
  }
  return rules;
}

}  // namespace

bool AuthorizationRule::allows(std::string_view module, std::string_view command) const {
  return std::ranges::any_of(modules, [&](const Module& named) {
    return named.name == module && (holds(named.commands, everyCommand) || holds(named.commands, command));
  });
}

Permissions::Permissions(const Caller& caller, std::shared_ptr<const AuthorizationRules> rules)
    : user_(caller.user), rules_(std::move(rules)), isMeant_(rules_->size()), mayRunAll_(caller.isDaemonsOwn) {
  if (mayRunAll_) return;
  memberships_ = DirectoryMemberships::ofUser(user_);
  // A record that was made anew under the name is another user's.
  if (memberships_ && memberships_->identifier() != caller.directoryIdentifier) memberships_.reset();
  mayRunAll_ = memberships_ && memberships_->include(administrators);
}

bool Permissions::isMeantBy(std::size_t rule) {
  const AuthorizationRule& asked = (*rules_)[rule];
  std::optional<bool>& isMeant = isMeant_[rule];
  if (!isMeant) {
    isMeant = memberships_ && (holds(asked.users, user_) || std::ranges::any_of(asked.groups, [&](const auto& group) {
                                 return memberships_->include(group);
                               }));
  }
  return *isMeant;
}

bool Permissions::allow(std::string_view module, std::string_view command) {
  for (std::size_t rule = 0; !mayRunAll_ && rule < rules_->size(); ++rule) {
    if ((*rules_)[rule].allows(module, command) && isMeantBy(rule)) return true;
  }
  return mayRunAll_;
}

Permissions Authorization::permissionsOf(const Caller& caller) { return {caller, rules()}; }

std::shared_ptr<const AuthorizationRules> Authorization::rules() {
  const MutexLock lock(mutex_);
  const FileState state = FileState::of(file_);
  if (rules_ && state == state_) return rules_;
  auto read = std::make_shared<AuthorizationRules>();
  try {
    *read = rulesFrom(file_);
    rules_ = read;
  } catch (const Fault& fault) {
    // Not kept: what fails for want of descriptors must not go on when there are some again.
    rules_ = nullptr;
    if (fault.text != fault_ || state != state_) {
      logAt(LogLevel::error, "[%d] authorization rules %s %s: they allow nothing", processId(), file_, fault.text);
    }
    fault_ = fault.text;
  }
  state_ = state;
  return read;
}

}  // namespace ostrel
