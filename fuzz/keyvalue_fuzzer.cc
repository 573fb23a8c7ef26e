// The key-value reader on arbitrary configuration files: the platform files
// it reads can be edited by anyone with a shell on the box.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include <fuzzer/FuzzedDataProvider.h>

#include "fuzz/fuzz_root.h"
#include "platform/olibc.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  orvofuzz::MachineRoot();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider input(data, size);
  const int bufferSize = input.ConsumeIntegralInRange<int>(1, 80);
  const std::string key = input.ConsumeRandomLengthString(32);
  const std::string content = input.ConsumeRemainingBytesAsString();
  const std::string path = orvofuzz::MachineRoot() + "/keyvalue.conf";
  orvofuzz::WriteBytes(path, reinterpret_cast<const uint8_t*>(content.data()), content.size());

  // A canary past the buffer shows any write beyond `size` even where the
  // sanitizer's redzone would not (the buffer is part of a larger array).
  char buffer[96];
  memset(buffer, 'X', sizeof(buffer));
  const int written = OLIBCFileGetKeyValue(path.c_str(), key.c_str(), buffer, bufferSize, 0);
  if (written < -1 || written > bufferSize - 1) abort();
  for (size_t i = static_cast<size_t>(bufferSize); i < sizeof(buffer); ++i) {
    if (buffer[i] != 'X') abort();
  }
  if (written > 0 && strnlen(buffer, bufferSize) != static_cast<size_t>(written)) abort();
  if (written > 0) {
    // The value read must compare equal through the checking reader, unless
    // the buffer cut it short.
    const std::string value(buffer, written);
    const int equal = OLIBCFileCheckKeyValue(path.c_str(), key.c_str(), value.c_str(), 0);
    if (equal == -1) abort();
    if (written < bufferSize - 1 && equal != 1) abort();
  }
  return 0;
}
