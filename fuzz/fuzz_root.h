// A private machine root for a fuzz target: the library resolves every fixed
// path under it, so no run touches the real registry or temp directory.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace orvofuzz {

// Creates the root once per process and points ORVOVTE_MACHINE_ROOT at it;
// the directory of every machine path the targets use exists.
const std::string& MachineRoot();

// Replaces `path` with the bytes; aborts when it cannot, since a target that
// silently fed nothing to the code would find nothing.
void WriteBytes(const std::string& path, const uint8_t* data, size_t size);

}  // namespace orvofuzz
