// Files any process or shell user on the machine may have written or
// half-written: the platform's key=value files and the transcoder registry.
// Reading them must give a value or a refusal, and what is written back must
// be a registry again.
#include <json/json.h>

#include <fuzzer/FuzzedDataProvider.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

#include "fuzz/fuzz_root.h"
#include "platform/olibc.h"
#include "vte/utils/trans_loading.h"

namespace {

void CheckKeyValue(FuzzedDataProvider& input) {
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
  if (written <= 0) return;
  if (strnlen(buffer, bufferSize) != static_cast<size_t>(written)) abort();
  // The value read compares equal through the checking reader, unless the
  // buffer cut it short.
  const int equal = OLIBCFileCheckKeyValue(path.c_str(), key.c_str(), buffer, 0);
  if (equal == -1 || (written < bufferSize - 1 && equal != 1)) abort();
}

void CheckRegistry(const uint8_t* data, size_t size) {
  const std::string registry = librh::machine::Resolve(librh::machine::kLoadRegistry);
  orvofuzz::WriteBytes(registry, data, size);
  {
    LibReelhall::TransLoading loading;
    if (!loading.IsLockSucess()) abort();
    loading.TransEnable(false);
    loading.IsOffineConverting();
    loading.SaveTransPID(1, false, false);
    loading.RemoveTransPIDLock(1);
  }
  std::ifstream in(registry);
  Json::Value written;
  Json::CharReaderBuilder builder;
  std::string errors;
  if (!Json::parseFromStream(builder, in, &written, &errors) || !written.isArray()) abort();
  for (const Json::Value& entry : written) {
    if (!entry.isObject() || !entry["PID"].isInt()) abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  orvofuzz::MachineRoot();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  CheckRegistry(data, size);
  FuzzedDataProvider input(data, size);
  CheckKeyValue(input);
  return 0;
}
