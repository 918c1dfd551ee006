#include "Platform/Internal/Directory/TextIndex.h"

#include "Containers/Format.h"

namespace ostrel::detail {
namespace {

constexpr std::size_t gramSize = 3;

void appendHex(std::string& text, std::string_view bytes) {
  constexpr std::string_view digits = "0123456789abcdef";
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    text += digits[byte >> 4U];
    text += digits[byte & 0xFU];
  }
}

// The words for the first `count` bytes of `bytes`.
std::string words(std::int64_t attribute, std::string_view bytes, std::size_t count) {
  const std::string head = format("%04x", static_cast<unsigned>(attribute));
  std::string text;
  text.reserve(count * (head.size() + 2 * gramSize + 1));
  for (std::size_t at = 0; at < count; ++at) {
    if (at > 0) text += ' ';
    text += head;
    appendHex(text, bytes.substr(at, gramSize));
  }
  return text;
}

// The words that begin within the pattern and do not reach beyond it; one shorter than a word is the beginning of one.
std::string query(std::int64_t attribute, std::string_view pattern, bool isWhole) {
  const std::size_t count = pattern.size() < gramSize ? 1 : pattern.size() - gramSize + 1;
  std::string phrase;
  phrase.append("\"").append(words(attribute, pattern, count)).append("\"");
  if (pattern.size() < gramSize && !isWhole) phrase += " *";
  return phrase;
}

}  // namespace

std::string indexedText(std::int64_t attribute, std::string_view folded) {
  std::string bytes(folded);
  bytes += '\0';
  return words(attribute, bytes, folded.size());
}

std::string containsQuery(std::int64_t attribute, std::string_view folded) { return query(attribute, folded, false); }

std::string endsWithQuery(std::int64_t attribute, std::string_view folded) {
  std::string bytes(folded);
  bytes += '\0';
  return query(attribute, bytes, true);
}

}  // namespace ostrel::detail
