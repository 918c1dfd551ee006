// An authentication buffer that leaves no password in freed memory.
#pragma once

#include "Containers/PlistValue.h"
#include "Platform/DirectoryService.h"

namespace ostrel::detail {

class SecretBuffer {
 public:
  /// None when a text has no NUL-terminated form, or without memory.
  SecretBuffer(DirectoryHandle session, const PlistValue& user, const PlistValue& password);
  ~SecretBuffer();
  SecretBuffer(const SecretBuffer&) = delete;
  SecretBuffer& operator=(const SecretBuffer&) = delete;

  explicit operator bool() const { return buffer_ != nullptr; }
  const DirectoryDataBuffer* get() const { return buffer_; }

 private:
  DirectoryDataBuffer* buffer_ = nullptr;
};

}  // namespace ostrel::detail
