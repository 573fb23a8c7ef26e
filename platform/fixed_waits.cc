#include "platform/fixed_waits.h"

#include <time.h>

#include <atomic>

#include "platform/test_seams.h"

namespace librh {
namespace {

constexpr long long kMicrosPerSecond = 1000 * 1000;

std::atomic<long long> gSecondMicros{kMicrosPerSecond};

long long Micros(unsigned int seconds) {
  return static_cast<long long>(seconds) * gSecondMicros.load(std::memory_order_relaxed);
}

}  // namespace

namespace waits {

void Sleep(unsigned int seconds) {
  const long long micros = Micros(seconds);
  const struct timespec span = {static_cast<time_t>(micros / kMicrosPerSecond),
                                static_cast<long>(micros % kMicrosPerSecond) * 1000};
  nanosleep(&span, nullptr);  // a signal cuts it short, as it does sleep(3)
}

struct timeval Timeout(unsigned int seconds) {
  const long long micros = Micros(seconds);
  return {static_cast<time_t>(micros / kMicrosPerSecond),
          static_cast<suseconds_t>(micros % kMicrosPerSecond)};
}

}  // namespace waits

namespace seams {

void SetWaitSecond(std::chrono::microseconds length) {
  gSecondMicros.store(length.count() > 0 ? length.count() : kMicrosPerSecond,
                      std::memory_order_relaxed);
}

}  // namespace seams
}  // namespace librh
