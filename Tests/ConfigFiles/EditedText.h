// A text in an open temporary file, as the editing functions take it.
#pragma once

#include <cstdio>
#include <stdexcept>
#include <string>
#include <string_view>

namespace ostrel::testing {

class EditedText {
 public:
  explicit EditedText(std::string_view text) : stream_(std::tmpfile()) {
    if (stream_ == nullptr || std::fwrite(text.data(), 1, text.size(), stream_) != text.size() ||
        std::fflush(stream_) != 0)
      throw std::runtime_error("cannot make a temporary file");
  }
  ~EditedText() { static_cast<void>(std::fclose(stream_)); }
  EditedText(const EditedText&) = delete;
  EditedText& operator=(const EditedText&) = delete;

  operator std::FILE*() const { return stream_; }
  /// What the file holds now, also what the stream has not flushed.
  std::string text() const {
    std::fflush(stream_);
    std::string bytes;
    std::rewind(stream_);
    char buffer[4096];
    for (std::size_t count = 0; (count = std::fread(buffer, 1, sizeof buffer, stream_)) > 0;)
      bytes.append(buffer, count);
    return bytes;
  }

 private:
  std::FILE* stream_;
};

}  // namespace ostrel::testing
