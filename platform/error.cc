#include "platform/olibc.h"

namespace {

// One slot per thread, as errno is: a request thread's failure must not be
// reported by another thread that happens to ask next.
struct LastError {
  int code = 0;
  const char* file = nullptr;
  int line = 0;
};

thread_local LastError lastError;

}  // namespace

int OLIBCErrGet() { return lastError.code; }

void OLIBCErrSetEx(int error, const char* file, int line) {
  lastError.code = error;
  lastError.file = file;
  lastError.line = line;
}
