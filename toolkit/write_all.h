// Writing a whole buffer to a descriptor.
#pragma once

#include <signal.h>

#include <cstddef>

namespace toolkit {

// Writes all of `data`, again after a signal cut a write short, unless
// `stop` (a signal handler's flag, when given) is set by then. False when a
// write failed or was stopped.
bool WriteAll(int fd, const char* data, size_t size, const volatile sig_atomic_t* stop = nullptr);

}  // namespace toolkit
