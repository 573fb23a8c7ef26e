// What the launcher asks of this machine through the Debian libavcodec and
// libavformat that the stock ffmpeg links: its encoders, and what an input
// file holds.
#pragma once

#include <string>

#include "nas/launchers/ffmpeg_translation.h"

namespace launchers {

bool StockHasEncoder(const std::string& name);

// Read from the container's headers and first packets, as the NAS build
// knows them once it has opened its input. A file that cannot be opened
// gets the defaults; the stock ffmpeg then reports the failure itself.
SourceTraits InspectSource(const std::string& input);

}  // namespace launchers
