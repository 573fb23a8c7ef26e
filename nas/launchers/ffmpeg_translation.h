// Turns a command line that the library builds for the NAS's ffmpeg into one
// for the stock ffmpeg, by the rows of option_table.h and the needs of each
// output form. Pure: the caller says which encoders the stock build has.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "nas/launchers/option_table.h"

namespace launchers {

// Where Smooth Streaming fragments go. The stock muxer writes into a staging
// directory; the launcher renames each fragment into the output directory
// under the time the predicted manifest makes clients ask for.
struct FragmentLayout {
  std::string outputDir;      // the library's output argument
  std::string stagingDir;     // what the stock muxer gets instead
  long long firstTime = 0;    // of the first fragment, in 100 ns
  long long length = 0;       // of every fragment, in 100 ns
};

struct FFmpegPlan {
  OutputKind kind = OutputKind::kProgressive;
  std::vector<std::string> argv;  // argv[0] is the stock ffmpeg
  FragmentLayout fragments;       // kFragments only
};

using EncoderCheck = std::function<bool(const std::string& encoder)>;

// What the NAS build learns of its input while decoding it, and acts on.
struct SourceTraits {
  bool highDynamicRange = false;  // the first video stream's transfer is PQ or HLG
  bool hasAudio = true;
};
// Looks at the input file the command line names ("-i"); never asked about
// a pipe, which only the transcoder may read.
using SourceCheck = std::function<SourceTraits(const std::string& input)>;

// Fills `plan` from `libraryArgv` (argv[0] is the launcher's own name and is
// replaced by `stockFFmpeg`). False, with a message for the operator in
// `error`, when the command line cannot be translated faithfully.
bool PlanFFmpeg(const std::vector<std::string>& libraryArgv, const std::string& stockFFmpeg,
                const EncoderCheck& stockHasEncoder, const SourceCheck& inspectSource,
                FFmpegPlan* plan, std::string* error);

}  // namespace launchers
