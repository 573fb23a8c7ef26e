// Clearing away sessions nobody will use again: those whose viewer went
// without closing them, and what a crash or a failed removal left in the
// volumes' session trees.
#pragma once

#include <string>
#include <vector>

namespace LibOrvoVTE {

// How long a session with no monitor may go without client access before
// it counts as abandoned: as long as a monitor waits for a client.
inline constexpr unsigned long kAbandonedSeconds = 900;

// Removes every session the library made (of any user, when run as root)
// that has no live monitor or transcoder and has not been used for
// `idleSeconds`: no client access ("access_status"), no file written. Then
// every entry of the volumes' session trees that no session link points
// to. Returns the paths removed.
std::vector<std::string> SweepSessions(unsigned long idleSeconds);

}  // namespace LibOrvoVTE
