// The lines of a stream as the editing functions see them, and changes to several of them in one pass.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string_view>

namespace ostrel::detail {

/// The most characters of a line that are read at once: what is longer is seen as several lines.
constexpr std::size_t longestLine = 511;

struct TextLine {
  std::int64_t offset = 0;
  std::string_view bytes;  ///< with the line end (one CR or one LF) where there is one; never empty

  /// What C's string functions see of it.
  std::string_view text() const noexcept { return bytes.substr(0, bytes.find('\0')); }
  std::int64_t next() const noexcept { return offset + static_cast<std::int64_t>(bytes.size()); }
  /// The offset of the line's last byte: its line end, or its last character where it has none.
  std::int64_t end() const noexcept { return next() - 1; }
  bool isEmpty() const noexcept { return bytes.front() == '\n' || bytes.front() == '\r'; }
};

/// How many of `bytes` are their first line, its line end included.
std::size_t firstLineLength(std::string_view bytes) noexcept;

/// Reads lines from an offset onwards. It reads ahead: the stream's position means nothing meanwhile.
class TextLineReader {
 public:
  /// `failure` tells at once whether the stream could be positioned.
  TextLineReader(std::FILE* stream, std::int64_t start) noexcept;

  /// Goes to the next line. False at the end and on a failure.
  bool next() noexcept;
  /// The current line; its bytes stay until the next call of `next`.
  const TextLine& line() const noexcept { return line_; }
  /// 0, or why there is no further line: kTextFileSeekErr or the stream's error indicator.
  std::int32_t failure() const noexcept { return failure_; }

  /// Reads so many line feeds more behind the end of the file, as if they stood there.
  void addFilling(std::size_t feeds) noexcept { filling_ += feeds; }
  /// How many of the current line and those before it are such line feeds.
  std::size_t filling() const noexcept;

 private:
  void fill() noexcept;
  void takeFilling() noexcept;

  std::FILE* stream_;
  TextLine line_;
  std::int64_t nextOffset_;
  std::int32_t failure_ = 0;
  bool atEnd_ = false;
  std::int64_t fileEnd_ = 0;  // known when atEnd_
  std::size_t filling_ = 0;   // line feeds not yet in the buffer
  std::size_t begin_ = 0;     // what was read and not yet given out
  std::size_t filled_ = 0;
  std::array<char, 16384> buffer_;
};

/// The line at an offset, on its own.
class SingleLine {
 public:
  SingleLine(std::FILE* stream, std::int64_t offset) noexcept : reader_(stream, offset), found_(reader_.next()) {}
  explicit operator bool() const noexcept { return found_; }
  const TextLine& operator*() const noexcept { return reader_.line(); }
  const TextLine* operator->() const noexcept { return &reader_.line(); }

 private:
  TextLineReader reader_;
  bool found_;
};

/// What a pass does with one line.
struct LineEdit {
  std::size_t start = 0;   ///< replaced from here in the line...
  std::size_t length = 0;  ///< ...so many bytes...
  std::string_view text;   ///< ...by these
  bool changes = false;
  bool isLast = false;  ///< the pass ends here
};

class LineEditor {
 public:
  virtual ~LineEditor() = default;
  virtual LineEdit edit(const TextLine& line) = 0;
};

/// Asks the editor about each line from `start` on, until the file ends, a line starts beyond a positive `limit`, or an
/// edit is the last; then writes all changes at once. The file is then as if each change had been made on its own by
/// `InsertTextInFile`, but in linear time: behind its text stands one line feed for each byte by which a line became
/// shorter, and these are lines like others (the first of them ends a last line that had no end). An editor that would
/// shorten them, and so never come to an end, is stopped there. `limit` is an offset before the changes. `delta`
/// becomes the change in the text's size, without that filling. The result is 0 or a code; nothing is written before
/// every line has been read.
std::int32_t editLines(std::FILE* stream, std::int64_t start, std::int64_t limit, LineEditor& editor,
                       std::int64_t& delta) noexcept;

}  // namespace ostrel::detail
