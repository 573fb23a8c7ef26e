// What the tests change in the library between cases that a process in
// production fixes for its lifetime. Only tests include this header, and it
// is not installed: nothing a caller or a web request controls (arguments,
// environment, files) reaches these.
#pragma once

#include <chrono>

namespace librh {
namespace seams {

// Forgets the platform that PlatformUtils::GetInst() has read: its next call
// reads the machine again, as the first call in a new process does.
void ForgetPlatform();

// Makes a second of the fixed waits (platform/fixed_waits.h) last `length`;
// std::chrono::seconds(1) restores the real waits.
void SetWaitSecond(std::chrono::microseconds length);

}  // namespace seams
}  // namespace librh
