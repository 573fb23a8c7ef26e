// The library's fixed waits (polls of a second, time-outs of half a minute)
// are counted on this clock. Its second lasts a second; only tests shorten
// it (platform/test_seams.h), rather than sit through the waits.
#pragma once

#include <sys/time.h>

namespace librh {
namespace waits {

// Sleeps `seconds` seconds of the clock.
void Sleep(unsigned int seconds);

// `seconds` seconds of the clock as a select(2) time-out.
struct timeval Timeout(unsigned int seconds);

}  // namespace waits
}  // namespace librh
