// Files any process or shell user on the machine may have written or
// half-written: the platform's key=value files and the transcoder registry.
#include <json/json.h>

#include <fuzzer/FuzzedDataProvider.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "fuzz/fuzz_root.h"
#include "platform/olibc.h"
#include "vte/utils/json_utils.h"
#include "vte/utils/trans_loading.h"

namespace {

void CheckKeyValue(FuzzedDataProvider& input) {
  const int size = input.ConsumeIntegralInRange<int>(1, 80);
  const std::string content = input.ConsumeRemainingBytesAsString();
  // The first key the file names, so that most runs have a value to copy.
  const size_t equals = content.find('=');
  const size_t line = equals == std::string::npos ? 0 : content.rfind('\n', equals) + 1;
  const std::string key = content.substr(line, equals - line);
  const std::string path = orvofuzz::MachineRoot() + "/keyvalue.conf";
  orvofuzz::WriteBytes(path, content);
  // A canary past `size` shows a write beyond it where the sanitizer's
  // redzone would not (the buffer is part of a larger array).
  char buffer[96];
  memset(buffer, 'X', sizeof(buffer));
  const int written = OLIBCFileGetKeyValue(path.c_str(), key.c_str(), buffer, size, 0);
  if (written < -1 || written >= size || buffer[size] != 'X') abort();
  if (written > 0) OLIBCFileCheckKeyValue(path.c_str(), key.c_str(), buffer, 0);
}

// What is written back must be a registry again.
void CheckRegistry(const std::string& content) {
  const std::string registry = librh::machine::Resolve(librh::machine::kLoadRegistry);
  orvofuzz::WriteBytes(registry, content);
  {
    LibReelhall::TransLoading loading;
    if (!loading.IsLockSucess()) abort();
    loading.TransEnable(false);
    loading.IsOffineConverting();
    loading.SaveTransPID(1, false, false);
    loading.RemoveTransPIDLock(1);
  }
  Json::Value written;
  if (!LibReelhall::ReadJsonFromFile(registry, written) || !written.isArray()) abort();
  for (const Json::Value& entry : written) {
    if (!entry.isObject() || !entry["PID"].isInt()) abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  CheckRegistry(std::string(reinterpret_cast<const char*>(data), size));
  FuzzedDataProvider input(data, size);
  CheckKeyValue(input);
  return 0;
}
