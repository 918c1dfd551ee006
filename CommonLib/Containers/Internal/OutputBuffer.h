// The text or bytes that a writer has made so far. Not installed.
#pragma once

#include <cstddef>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>

#include "Containers/PlistValue.h"

namespace ostrel::detail {

/// Small documents are gathered on the stack and copied once into a string of their size.
class OutputBuffer {
 public:
  OutputBuffer() = default;
  OutputBuffer(const OutputBuffer&) = delete;
  OutputBuffer& operator=(const OutputBuffer&) = delete;

  /// Room for `count` more bytes, at most `maximumReserve`; `advanceTo` takes the end of what was written there.
  char* reserve(std::size_t count) {
    if (static_cast<std::size_t>(staged_ + sizeof staged_ - at_) < count) flush();
    return at_;
  }
  void advanceTo(char* end) noexcept { at_ = end; }
  static constexpr std::size_t maximumReserve = 8192;

  void append(std::string_view bytes) {
    if (bytes.size() > maximumReserve) {
      flush();
      text_.append(bytes);
      return;
    }
    char* const out = reserve(bytes.size());
    if (!bytes.empty()) std::memcpy(out, bytes.data(), bytes.size());
    at_ = out + bytes.size();
  }

  /// How large the whole will be, about; asked once, when the document turns out not to be small. Growing step by step
  /// would take twice the memory, all of it fresh from the system.
  void expectFrom(const PlistValue& root, std::size_t (*estimate)(const PlistValue&)) noexcept {
    root_ = &root;
    estimate_ = estimate;
  }

  std::size_t size() const noexcept { return text_.size() + static_cast<std::size_t>(at_ - staged_); }

  std::string finish() {
    if (text_.empty()) return {staged_, static_cast<std::size_t>(at_ - staged_)};
    flush();
    return std::move(text_);
  }

 private:
  void flush() {
    if (root_ != nullptr) text_.reserve(estimate_(*std::exchange(root_, nullptr)));
    text_.append(staged_, static_cast<std::size_t>(at_ - staged_));
    at_ = staged_;
  }

  const PlistValue* root_ = nullptr;
  std::size_t (*estimate_)(const PlistValue&) = nullptr;
  std::string text_;
  char* at_ = staged_;
  char staged_[2 * maximumReserve];
};

}  // namespace ostrel::detail
