// Smooth fragment names and HLS fragment ids come straight from the client's
// URL.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "fuzz/fuzz_root.h"
#include "vte/http_live_stream.h"
#include "vte/smooth_stream.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  orvofuzz::MachineRoot();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const LibOrvoVTE::SmoothStream stream("fuzzsession");
  static const LibOrvoVTE::HttpLiveStream hls("fuzzsession");
  const std::string id(reinterpret_cast<const char*>(data), size);
  // The segment's start second is a product with the client's number.
  hls.CalculateSeekTime(id);
  std::string time = "t", type = "y", quality = "q";
  if (!stream.ParseFragId(id, time, type, quality)) {
    // A refused id leaves the caller's values alone.
    if (time != "t" || type != "y" || quality != "q") abort();
    return 0;
  }
  if (id.find(quality) == std::string::npos) abort();
  if (type != "y" && (time.find(')') != std::string::npos ||
                      id.find(type + time + ")") == std::string::npos)) {
    abort();
  }
  // The seconds are computed from the client's number: overflow shows here.
  stream.CalculateSeekTime(id);
  return 0;
}
