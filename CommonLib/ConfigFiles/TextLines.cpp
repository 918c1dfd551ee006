#include <algorithm>
#include <cerrno>
#include <utility>

#include "ConfigFiles/Internal/TextLines.h"
#include "Containers/Utf8.h"
#include "Platform/RegularFile.h"

namespace ostrel::detail {
namespace {

constexpr std::string_view blanks = " \t";

}  // namespace

std::optional<std::string> readRegularFile(const std::string& path, std::size_t limit) {
  const FileDescriptor file = openRegularFile(path);
  return file ? readToEnd(file.get(), limit) : std::nullopt;
}

std::optional<std::string> readConfigurationText(const std::string& path) {
  auto text = readRegularFile(path);
  if (text && !isValidUtf8(*text)) {
    errno = EILSEQ;
    text.reset();
  }
  return text;
}

std::optional<FileChange> readableChange(const std::string& path, std::optional<std::string> oldText,
                                         std::string newText) {
  if (newText.size() <= maximumConfigurationSize) return FileChange(path, std::move(oldText), std::move(newText));
  errno = EFBIG;
  return std::nullopt;
}

std::vector<std::string_view> splitAt(std::string_view text, std::string_view separator) {
  std::vector<std::string_view> parts;
  for (;;) {
    const std::size_t end = separator.empty() ? std::string_view::npos : text.find(separator);
    parts.push_back(text.substr(0, end));
    if (end == std::string_view::npos) return parts;
    text.remove_prefix(end + separator.size());
  }
}

std::string_view trimBlanks(std::string_view text) {
  text.remove_prefix(std::min(text.find_first_not_of(blanks), text.size()));
  return text.substr(0, text.find_last_not_of(blanks) + 1);
}

std::string_view takeWord(std::string_view& rest) {
  rest.remove_prefix(std::min(rest.find_first_not_of(blanks), rest.size()));
  const std::string_view word = rest.substr(0, rest.find_first_of(blanks));
  rest.remove_prefix(word.size());
  return word;
}

bool equalsIgnoringCase(std::string_view left, std::string_view right) {
  const auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; };
  return std::ranges::equal(left, right, {}, lower, lower);
}

bool fitsOneLine(const PlistValue& text) {
  const std::string_view bytes = text.stringValue();
  return text.isString() && bytes.find_first_of(std::string_view("\n\0", 2)) == std::string_view::npos &&
         isValidUtf8(bytes);
}

Mutex& editing() {
  static Mutex mutex;
  return mutex;
}

}  // namespace ostrel::detail
