#include "ConfigFiles/Internal/TextFileLines.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <stdexcept>
#include <string>

#include "ConfigFiles/Internal/StreamBytes.h"
#include "ConfigFiles/TextFileErrors.h"

namespace ostrel::detail {
namespace {

// By how many bytes an edit makes its line shorter.
std::size_t shortening(const LineEdit& edit) {
  return edit.changes && edit.length > edit.text.size() ? edit.length - edit.text.size() : 0;
}

// The text from the first changed line on, as it is to become.
class Rewriting {
 public:
  void take(const TextLine& line, const LineEdit& edit) {
    if (edit.changes && start_ < 0) start_ = line.offset;
    if (start_ < 0) return;
    if (!edit.changes) {
      text_ += line.bytes;
      return;
    }
    text_ += line.bytes.substr(0, edit.start);
    text_ += edit.text;
    text_ += line.bytes.substr(edit.start + edit.length);
    delta_ += static_cast<std::int64_t>(edit.text.size()) - static_cast<std::int64_t>(edit.length);
    filling_ += shortening(edit);
  }

  // `end`: where the lines that were taken end in the file, behind it when `taken` line feeds of the filling are among
  // them.
  std::int32_t write(std::FILE* stream, std::int64_t end, std::size_t taken) {
    filling_ -= taken;
    if (start_ < 0) return 0;
    std::int64_t size = 0;
    std::int32_t code = streamSize(stream, size);
    if (code != 0) return code;
    if (delta_ != 0 || filling_ > 0) code = readStream(stream, end, size, text_);
    if (code != 0) return code;
    return writeStream(stream, start_, {text_, std::string(filling_, '\n')}, size);
  }

  std::int64_t delta() const { return delta_; }

 private:
  std::int64_t start_ = -1;
  std::int64_t delta_ = 0;
  std::size_t filling_ = 0;
  std::string text_;
};

std::int32_t editLinesOrThrow(std::FILE* stream, std::int64_t start, std::int64_t limit, LineEditor& editor,
                              std::int64_t& delta) {
  TextLineReader reader(stream, start);
  Rewriting rewriting;
  std::int64_t end = start;
  std::size_t filling = 0;
  while (reader.next()) {
    const TextLine& line = reader.line();
    if (limit >= 1 && line.offset > limit) break;
    const LineEdit edit = editor.edit(line);
    // What a line of the filling loses is filled up again: that would go on for ever, and the bytes stay the same.
    if (shortening(edit) > 0 && reader.filling() >= line.bytes.size()) break;
    rewriting.take(line, edit);
    reader.addFilling(shortening(edit));
    end = line.next();
    filling = reader.filling();
    if (edit.isLast) break;
  }
  if (reader.failure() != 0) return reader.failure();
  const std::int32_t code = rewriting.write(stream, end, filling);
  if (code == 0) delta = rewriting.delta();
  return code;
}

}  // namespace

std::size_t firstLineLength(std::string_view bytes) noexcept {
  bytes = bytes.substr(0, longestLine);
  if (const void* const feed = std::memchr(bytes.data(), '\n', bytes.size()); feed != nullptr)
    bytes = bytes.substr(0, static_cast<std::size_t>(static_cast<const char*>(feed) - bytes.data()) + 1);
  if (const void* const end = std::memchr(bytes.data(), '\r', bytes.size()); end != nullptr)
    return static_cast<std::size_t>(static_cast<const char*>(end) - bytes.data()) + 1;
  return bytes.size();
}

TextLineReader::TextLineReader(std::FILE* stream, std::int64_t start) noexcept : stream_(stream), nextOffset_(start) {
  if (!seekStream(stream, start)) failure_ = kTextFileSeekErr;
}

void TextLineReader::fill() noexcept {
  // Little at first: often one line is all that is wanted.
  const std::size_t wanted = filled_ == 0 ? buffer_.size() / 8 : buffer_.size();
  std::memmove(buffer_.data(), buffer_.data() + begin_, filled_ - begin_);
  filled_ -= begin_;
  begin_ = 0;
  const std::size_t count = std::fread(buffer_.data() + filled_, 1, wanted - filled_, stream_);
  if (count < wanted - filled_) {
    atEnd_ = true;
    if (std::feof(stream_) == 0) failure_ = std::ferror(stream_);
  }
  filled_ += count;
  fileEnd_ = nextOffset_ + static_cast<std::int64_t>(filled_);
}

void TextLineReader::takeFilling() noexcept {
  std::memmove(buffer_.data(), buffer_.data() + begin_, filled_ - begin_);
  filled_ -= begin_;
  begin_ = 0;
  const std::size_t count = std::min(filling_, buffer_.size() - filled_);
  std::memset(buffer_.data() + filled_, '\n', count);
  filled_ += count;
  filling_ -= count;
}

std::size_t TextLineReader::filling() const noexcept {
  return atEnd_ && nextOffset_ > fileEnd_ ? static_cast<std::size_t>(nextOffset_ - fileEnd_) : 0;
}

bool TextLineReader::next() noexcept {
  if (failure_ != 0) return false;
  if (!atEnd_ && filled_ - begin_ < longestLine) fill();
  if (atEnd_ && filling_ > 0 && filled_ - begin_ < longestLine) takeFilling();
  if (failure_ != 0 || begin_ == filled_) return false;
  line_.bytes = std::string_view(buffer_.data() + begin_, filled_ - begin_);
  line_.bytes = line_.bytes.substr(0, firstLineLength(line_.bytes));
  line_.offset = nextOffset_;
  nextOffset_ = line_.next();
  begin_ += line_.bytes.size();
  return true;
}

std::int32_t editLines(std::FILE* stream, std::int64_t start, std::int64_t limit, LineEditor& editor,
                       std::int64_t& delta) noexcept {
  delta = 0;
  try {
    return editLinesOrThrow(stream, start, limit, editor, delta);
  } catch (const std::bad_alloc&) {
    return kTextFileNoMemoryErr;
  } catch (const std::length_error&) {
    return kTextFileNoMemoryErr;
  }
}

}  // namespace ostrel::detail
