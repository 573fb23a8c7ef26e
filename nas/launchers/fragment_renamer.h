// Moves Smooth Streaming fragments from the stock muxer's staging directory
// to the names clients ask for.
//
// The stock smoothstreaming muxer names a fragment by its first timestamp:
// video lands on the 5-second grid only roughly (AAC priming shifts it at the
// start), audio is off by up to a frame. The predicted manifest lists fixed
// 5-second chunks, so clients ask for seek + k * 5 s exactly. The muxer cuts
// all streams together, so the k-th fragment of each stream is chunk k: it is
// renamed to that time, keeping its QualityLevels(bitrate) directory, and
// the time it carries in its tfxd box becomes that time too.
#pragma once

#include <map>
#include <string>

#include "nas/launchers/ffmpeg_translation.h"

namespace launchers {

class FragmentRenamer {
 public:
  explicit FragmentRenamer(const FragmentLayout& layout) : layout_(layout) {}

  // Creates the output and the staging directory. False, with the reason in
  // `error`, when either cannot be made.
  bool Prepare(std::string* error) const;

  // Moves the fragments the muxer has finished since the last call (they
  // appear complete, under their final staging names), in time order per
  // stream. Returns how many it moved.
  int MoveFinished();

  // Deletes the staging directory with the muxer's own manifest and
  // fragment headers, which nobody serves.
  void RemoveStaging() const;

 private:
  FragmentLayout layout_;
  // Fragments moved so far, per "QualityLevels(...)/Fragments(<type>=".
  std::map<std::string, long long> moved_;
};

}  // namespace launchers
