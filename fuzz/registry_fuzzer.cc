// The transcoder registry read from a file any process on the machine may
// have half-written: loading it must give a registry or a refusal, and what
// is written back must be a registry again.
#include <json/json.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "fuzz/fuzz_root.h"
#include "platform/machine_root.h"
#include "vte/utils/trans_loading.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  orvofuzz::MachineRoot();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
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
  std::stringstream text;
  text << in.rdbuf();
  Json::Value written;
  Json::CharReaderBuilder builder;
  std::string errors;
  std::istringstream stream(text.str());
  if (!Json::parseFromStream(builder, stream, &written, &errors) || !written.isArray()) abort();
  for (const Json::Value& entry : written) {
    if (!entry.isObject() || !entry["PID"].isInt()) abort();
  }
  return 0;
}
