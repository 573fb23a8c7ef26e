// The library's fixed waits, shortened while one of these lives, so that a
// case checks a wait of half a minute in a few seconds.
#pragma once

#include <chrono>

#include "platform/test_seams.h"

namespace orvotest {

class ShortWaits {
 public:
  // How long a second of the fixed waits lasts meanwhile.
  static constexpr std::chrono::milliseconds kSecond{100};

  ShortWaits() { librh::seams::SetWaitSecond(kSecond); }
  ~ShortWaits() { librh::seams::SetWaitSecond(std::chrono::seconds(1)); }
  ShortWaits(const ShortWaits&) = delete;
  ShortWaits& operator=(const ShortWaits&) = delete;

  // `elapsed` counted in seconds of the fixed waits.
  static double Seconds(std::chrono::steady_clock::duration elapsed) {
    return std::chrono::duration<double>(elapsed) / kSecond;
  }
};

}  // namespace orvotest
