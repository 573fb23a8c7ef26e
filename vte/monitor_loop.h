// The supervision every stream kind's monitor process shares (HLS, Smooth
// Streaming, WebM): watching the transcoder child until it ends, the
// monitor is signalled or the kind's own rule says to stop, and then
// stopping and reaping the children. Each kind brings its exported globals
// and its rules. Internal to vte/.
#pragma once

#include <sys/types.h>

#include <csignal>
#include <functional>

namespace LibOrvoVTE {
namespace monitor {

// A monitor's children, as its kind keeps them in its globals.
struct Children {
  pid_t* transcoder;  // the kind's transcoder pid global; 0 when none
  pid_t* segmenter;   // the kind's segmenter pid global; nullptr when it has none
  // Whether the transcoder holds a load-registry entry (a remux never does).
  bool registered;
  // How long a transcoder interrupted with SIGINT may take to finish its
  // output before it is killed.
  int stopGraceMs;
  const char* logTag;  // the kind's source tag, for the force-kill line
};

// Supervises until the transcoder ends (its registry entry is released, it
// is reaped and its global becomes 0) and then its segmenter, if it has
// one, has ended too, the kind's flag `signalled` is up,
// `shouldStop` (when given) says so, or no child is left. Reaps any other
// child that ends meanwhile (a segmenter's global becomes 0). Looks every
// 2 seconds, and at once when a child ends or a signal arrives.
void Supervise(const Children& children, const volatile sig_atomic_t& signalled,
               const std::function<bool()>& shouldStop);

// Stops the children that are left: SIGINT, then SIGKILL to any that has
// not ended within the grace; each reaped (a child that not even SIGKILL
// ends within seconds is left to whoever adopts it) and its global set to
// 0. The transcoder's registry entry is released in every case.
void Stop(const Children& children);

}  // namespace monitor
}  // namespace LibOrvoVTE
