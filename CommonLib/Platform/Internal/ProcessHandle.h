// Handles on processes (pidfd_open(2)).
#pragma once

#include <sys/syscall.h>
#include <sys/types.h>
#include <unistd.h>

#include "Platform/FileDescriptor.h"

namespace ostrel::detail {

// By number: glibc 2.36 declares both in <sys/pidfd.h> without C linkage, where C++ does not find them.

/// A handle on the process, readable once it has ended; close-on-exec. None with errno.
inline FileDescriptor openProcess(pid_t pid) {
  return FileDescriptor(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0U)));
}

inline bool signalProcess(const FileDescriptor& handle, int signal) {
  return ::syscall(SYS_pidfd_send_signal, handle.get(), signal, nullptr, 0U) == 0;
}

}  // namespace ostrel::detail
