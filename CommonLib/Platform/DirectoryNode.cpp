#include "Platform/DirectoryNode.h"

#include <algorithm>
#include <charconv>
#include <cwctype>

#include "Containers/Utf8.h"

namespace ostrel {
namespace {

// The simple case mapping of Unicode as the C library has it. Upper case first, so that the two lower-case sigmas meet.
char32_t foldedCharacter(char32_t character) {
  static const locale_t unicode = newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
  if (unicode == nullptr) return character;
  return static_cast<char32_t>(towlower_l(towupper_l(static_cast<std::wint_t>(character), unicode), unicode));
}

bool isAscii(std::string_view text) {
  return std::ranges::none_of(text, [](char c) { return static_cast<unsigned char>(c) >= 0x80; });
}

char foldedAscii(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

std::optional<std::int64_t> wholeInteger(std::string_view text) {
  std::int64_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return number;
}

}  // namespace

std::string foldedCase(std::string_view text) {
  std::string folded;
  folded.reserve(text.size());
  if (isAscii(text)) {
    std::ranges::transform(text, std::back_inserter(folded), foldedAscii);
    return folded;
  }
  while (!text.empty()) {
    std::uint32_t character = 0;
    const std::size_t length = decodeCharacter(text, character);
    if (length == 0)
      folded += text.front();
    else
      appendUtf8(folded, foldedCharacter(character));
    text.remove_prefix(std::max<std::size_t>(length, 1));
  }
  return folded;
}

bool directoryValueMatches(std::uint32_t match, std::string_view pattern, std::string_view value) {
  switch (match) {
    case directoryMatch::exact:
      return value == pattern;
    case directoryMatch::contains:
      return value.find(pattern) != std::string_view::npos;
    case directoryMatch::lessThan:
    case directoryMatch::greaterThan: {
      const auto number = wholeInteger(value);
      const auto bound = wholeInteger(pattern);
      if (!number || !bound) return false;
      return match == directoryMatch::lessThan ? *number < *bound : *number > *bound;
    }
    case directoryMatch::exactIgnoringCase:
      return foldedCase(value) == foldedCase(pattern);
    case directoryMatch::startsWithIgnoringCase:
      return foldedCase(value).starts_with(foldedCase(pattern));
    case directoryMatch::endsWithIgnoringCase:
      return foldedCase(value).ends_with(foldedCase(pattern));
    case directoryMatch::containsIgnoringCase:
      return foldedCase(value).find(foldedCase(pattern)) != std::string::npos;
    default:
      return false;
  }
}

bool DirectorySearchRequest::asksForAll() const {
  return match == directoryMatch::any || std::ranges::find(patterns, directoryName::allRecords) != patterns.end();
}

bool DirectorySearchRequest::asksForAttribute(std::string_view name) const {
  return std::ranges::any_of(
      attributes, [&](const std::string& asked) { return asked == name || asked == directoryName::allAttributes; });
}

DirectoryStatus DirectoryRecord::addValue(std::string_view, std::string_view) { return directoryStatus::readOnly; }
DirectoryStatus DirectoryRecord::replaceValue(std::string_view, std::uint32_t, std::string_view) {
  return directoryStatus::readOnly;
}
DirectoryStatus DirectoryRecord::removeValue(std::string_view, std::uint32_t) { return directoryStatus::readOnly; }
DirectoryStatus DirectoryRecord::setValues(std::string_view, std::span<const std::string_view>) {
  return directoryStatus::readOnly;
}
DirectoryStatus DirectoryRecord::removeAttribute(std::string_view) { return directoryStatus::readOnly; }
DirectoryStatus DirectoryRecord::remove() { return directoryStatus::readOnly; }

DirectoryStatus DirectoryNode::createRecord(std::string_view, std::string_view, const DirectoryIdentityPointer&,
                                            std::unique_ptr<DirectoryRecord>&) {
  return directoryStatus::readOnly;
}

std::vector<DirectoryNode::Fact> DirectoryNode::facts() const {
  return {{std::string(directoryName::nodePath), {path()}},
          {std::string(directoryName::readOnlyNode), {isReadOnly() ? "ReadOnly" : "ReadWrite"}}};
}

}  // namespace ostrel
