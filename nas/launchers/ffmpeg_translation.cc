#include "nas/launchers/ffmpeg_translation.h"

#include <algorithm>

namespace launchers {
namespace {

constexpr long long kTicksPerSecond = 10000000;  // Smooth Streaming's 100 ns
constexpr long long kMicrosPerSecond = 1000000;
constexpr char kStagingName[] = "/.staging";
// Beside the segments: the library serves a segment only once the list has
// it, with its full length.
constexpr char kSegmentListName[] = "segments.csv";
// HDR pictures for an SDR screen: to linear light with the PQ signal's
// 100 nits as SDR white (HLG is scaled alike), the BT.2020 gamut converted
// to BT.709 there, Mobius tone mapping that leaves everything up to 80 % of
// white as it is and rolls the highlights off above, unsaturated colours
// kept (desat=0), then the BT.709 curve and matrix in limited range.
constexpr char kToneMap[] =
    "zscale=t=linear:npl=100,format=gbrpf32le,zscale=p=bt709,"
    "tonemap=tonemap=mobius:param=0.8:desat=0,zscale=t=bt709:m=bt709:r=tv,format=yuv420p";
const std::vector<std::string> kBt709Tags = {"-color_primaries", "bt709", "-color_trc", "bt709",
                                             "-colorspace", "bt709"};
// What clients of a Smooth Streaming stream expect when the source has no
// sound: the predicted manifest announces stereo AAC at 48 kHz whatever.
constexpr char kSilence[] = "anullsrc=channel_layout=stereo:sample_rate=48000";

const char* KindName(OutputKind kind) {
  switch (kind) {
    case OutputKind::kWebM: return "WebM";
    case OutputKind::kSegments: return "HLS segments";
    case OutputKind::kFragments: return "Smooth Streaming fragments";
    case OutputKind::kProgressive: break;
  }
  return "progressive";
}

// What the walk over the library's words learnt; the per-kind finishing
// works from it.
struct Walk {
  OutputKind kind = OutputKind::kProgressive;
  std::vector<std::string> words;  // translated, without argv[0] and the output
  bool hasInput = false;
  std::string input;               // the first "-i"
  bool pixelFormatGiven = false;
  bool colourTagged = false;
  bool copyTimestamps = false;
  bool forcesKeyFrames = false;
  long formatIndex = -1;           // of the value after "-f" in `words`
  std::string videoCodec, audioCodec;
  long long segmentSeconds = -1;   // "-segment_time"
  long long fragmentSeconds = -1;  // "-fragment_length"
  long long seekSeconds = -1;      // "-seek_time"
  long seekOffsetIndex = -1;       // of "-output_ts_offset" made from "-seek_time"
  long frameRateIndex = -1;        // of the output's "-r"
  long videoFiltersIndex = -1;     // of the value after "-vf" or "-filter:v"
};

bool Fail(std::string* error, const std::string& message) {
  *error = message;
  return false;
}

bool TakeRow(const TableRow& row, const std::vector<std::string>& values, Walk* walk,
             std::string* error) {
  if (row.announces != OutputKind::kProgressive) {
    if (walk->kind != OutputKind::kProgressive && walk->kind != row.announces) {
      return Fail(error, std::string(row.word) + " asks for " + KindName(row.announces) +
                             " in a command line for " + KindName(walk->kind));
    }
    walk->kind = row.announces;
  }
  if (row.treatment == Treatment::kDrop) return true;
  long long seconds = 0;
  if (!ParseWholeSeconds(values[0], &seconds)) {
    return Fail(error, std::string(row.word) + " wants whole seconds, not \"" + values[0] + "\"");
  }
  if (row.treatment == Treatment::kRenameSecondsToMicros) {
    if (seconds == 0) return Fail(error, std::string(row.word) + " must be positive");
    walk->fragmentSeconds = seconds;
    walk->words.insert(walk->words.end(),
                       {row.stockWord, std::to_string(seconds * kMicrosPerSecond)});
    return true;
  }
  if (std::string(row.word) == "-seek_time") {
    walk->seekSeconds = seconds;
    walk->seekOffsetIndex = static_cast<long>(walk->words.size());
  }
  walk->words.insert(walk->words.end(), {row.stockWord, values[0]});
  return true;
}

void TakeCodec(const std::string& option, const std::string& name,
               const EncoderCheck& stockHasEncoder, Walk* walk) {
  const TableRow* row = FindEncoder(name);
  const std::string encoder = row && !stockHasEncoder(name) ? row->stockWord : name;
  walk->words.insert(walk->words.end(), {option, encoder});
  if (CodecOptionCovers(option, 'v')) walk->videoCodec = encoder;
  if (CodecOptionCovers(option, 'a')) walk->audioCodec = encoder;
}

bool WalkWords(const std::vector<std::string>& argv, size_t end,
               const EncoderCheck& stockHasEncoder, Walk* walk, std::string* error) {
  for (size_t i = 1; i < end; ++i) {
    const std::string& word = argv[i];
    const bool hasValue = i + 1 < end;
    if (const TableRow* row = FindOption(word)) {
      if (i + row->valueCount >= end) return Fail(error, word + " needs a value");
      const std::vector<std::string> values(argv.begin() + i + 1,
                                            argv.begin() + i + 1 + row->valueCount);
      if (!TakeRow(*row, values, walk, error)) return false;
      i += row->valueCount;
      continue;
    }
    if (IsCodecOption(word) && hasValue) {
      TakeCodec(word, argv[++i], stockHasEncoder, walk);
      continue;
    }
    walk->words.push_back(word);
    if (word == "-copyts") {
      walk->copyTimestamps = true;
      continue;
    }
    if (!hasValue) continue;
    const std::string& value = argv[i + 1];
    if (word == "-i") {
      if (!walk->hasInput) walk->input = value;
      walk->hasInput = true;
    } else if (word == "-pix_fmt") {
      walk->pixelFormatGiven = true;
    } else if (word == "-color_primaries" || word == "-color_trc" || word == "-colorspace") {
      walk->colourTagged = true;
    } else if (word == "-r" && walk->hasInput) {
      walk->frameRateIndex = static_cast<long>(walk->words.size()) - 1;
    } else if (word == "-vf" || word == "-filter:v") {
      walk->videoFiltersIndex = static_cast<long>(walk->words.size());
    } else if (word == "-f") {
      walk->formatIndex = static_cast<long>(walk->words.size());
    } else if (word == "-force_key_frames") {
      walk->forcesKeyFrames = true;
    } else if (word == "-segment_time") {
      if (!ParseWholeSeconds(value, &walk->segmentSeconds)) {
        return Fail(error, "-segment_time wants whole seconds, not \"" + value + "\"");
      }
    } else {
      continue;  // an option of the stock build (its value is copied next), or a lone word
    }
    walk->words.push_back(value);
    ++i;
  }
  return true;
}

void SetFormat(const std::string& format, Walk* walk) {
  if (walk->formatIndex >= 0) {
    walk->words[walk->formatIndex] = format;
  } else {
    walk->words.insert(walk->words.end(), {"-f", format});
  }
}

// Keyframes where segments and fragments must begin: every `seconds` of
// output from its first frame, which the seek puts on a boundary. (The
// expression's t counts from the output's start even under -copyts.) A grid
// rather than a distance from the previous keyframe, so keyframes that fall
// a little late do not add up.
void ForceKeyFrames(long long seconds, Walk* walk) {
  if (walk->videoCodec == "copy" || walk->forcesKeyFrames) return;
  walk->words.insert(walk->words.end(),
                     {"-force_key_frames", "expr:gte(t,n_forced*" + std::to_string(seconds) + ")"});
}

// Stock 5.1 makes an output "-r" by dropping and repeating frames as they
// leave the filters, and shows each picture late: at -r 15 a 25 or 30 fps
// source's pictures come 0.133 s (two output frames) after their time, so a
// player's clock runs ahead of the picture. The fps filter places every
// picture at its own time.
void FrameRateAsFilter(Walk* walk) {
  if (walk->frameRateIndex < 0 || walk->videoCodec == "copy") return;
  std::vector<std::string>& words = walk->words;
  const long at = walk->frameRateIndex;
  const std::string fps = "fps=" + words[at + 1];
  words.erase(words.begin() + at, words.begin() + at + 2);
  const auto shift = [at](long& index) {
    if (index > at) index -= 2;
  };
  shift(walk->formatIndex);
  shift(walk->seekOffsetIndex);
  shift(walk->videoFiltersIndex);
  if (walk->videoFiltersIndex >= 0) {
    words[walk->videoFiltersIndex] += "," + fps;
  } else {
    words.insert(words.end(), {"-vf", fps});
  }
}

// The segment muxer lists each segment as it closes it, with its start and
// end; one cut short by a signal is listed too, with its short length, and
// one cut by SIGKILL not at all. The library's "m3u8" list type is a
// playlist rewritten whole every time; CSV lines are only appended.
void ListSegments(const std::string& output, Walk* walk) {
  const size_t slash = output.rfind('/');
  const std::string list =
      (slash == std::string::npos ? std::string() : output.substr(0, slash + 1)) +
      kSegmentListName;
  std::vector<std::string>& words = walk->words;
  for (size_t i = 0; i + 1 < words.size(); ++i) {
    if (words[i] == "-segment_list" || words[i] == "-segment_list_type") {
      words.erase(words.begin() + i, words.begin() + i + 2);
      if (walk->formatIndex > static_cast<long>(i)) walk->formatIndex -= 2;
      --i;
    }
  }
  words.insert(words.end(), {"-segment_list", list, "-segment_list_type", "csv"});
}

bool FinishSegments(const std::string& output, Walk* walk, std::string* error) {
  if (walk->copyTimestamps) {
    return Fail(error, "-copyts with segments: the stock segment muxer would cut after every frame");
  }
  if (walk->segmentSeconds <= 0) return Fail(error, "segments need a positive -segment_time");
  SetFormat("segment", walk);
  ForceKeyFrames(walk->segmentSeconds, walk);
  ListSegments(output, walk);
  return true;
}

bool FinishFragments(const std::string& output, Walk* walk, FragmentLayout* layout,
                     std::string* error) {
  if (output.empty()) return Fail(error, "Smooth Streaming needs an output directory");
  if (walk->fragmentSeconds <= 0) return Fail(error, "Smooth Streaming needs -fragment_length");
  if (walk->seekSeconds < 0) return Fail(error, "Smooth Streaming needs -seek_time");
  if (walk->copyTimestamps) {
    // The source timeline already starts at the seek; an offset would count it twice.
    walk->words.erase(walk->words.begin() + walk->seekOffsetIndex,
                      walk->words.begin() + walk->seekOffsetIndex + 2);
    if (walk->formatIndex > walk->seekOffsetIndex) walk->formatIndex -= 2;
  }
  SetFormat("smoothstreaming", walk);
  // Live lookahead makes the muxer reopen finished fragments to patch in the
  // times of later ones; the predicted manifest already lists every chunk,
  // and a fragment must stay untouched once a client may read it.
  walk->words.insert(walk->words.end(), {"-lookahead_count", "0"});
  ForceKeyFrames(walk->fragmentSeconds, walk);
  layout->outputDir = output;
  layout->stagingDir = output + kStagingName;
  layout->firstTime = walk->seekSeconds * kTicksPerSecond;
  layout->length = walk->fragmentSeconds * kTicksPerSecond;
  return true;
}

// The WebM muxer refuses AAC and MP3, which the library copies or encodes
// for WebM clients; Matroska carries them with the same codecs and framing.
void FinishWebM(Walk* walk) {
  const std::string& audio = walk->audioCodec;
  const bool webmAudio = audio == "libvorbis" || audio == "vorbis" || audio == "libopus" ||
                         audio == "opus";
  const bool named = walk->formatIndex >= 0;
  if (named && walk->words[walk->formatIndex] != "webm") return;
  SetFormat(webmAudio ? "webm" : "matroska", walk);
}

// What the NAS build does to the pictures it encodes, whatever the profile
// says: HDR is tone-mapped for SDR screens, and H.264 is 8-bit 4:2:0, which
// is all its hardware encoders make; x264 would otherwise follow a 10-bit or
// 4:4:4 source into a High 10 or 4:4:4 profile that the profile's
// -profile:v, and most players, refuse. A copied video stays as it is.
void FinishPictures(const SourceTraits& source, Walk* walk) {
  if (walk->videoCodec.empty() || walk->videoCodec == "copy") return;
  std::vector<std::string>& words = walk->words;
  if (source.highDynamicRange) {
    auto filter = std::find_if(words.begin(), words.end(), [](const std::string& word) {
      return word == "-vf" || word == "-filter:v";
    });
    if (filter != words.end() && filter + 1 != words.end()) {
      filter[1] = std::string(kToneMap) + "," + filter[1];
    } else {
      words.insert(words.end(), {"-vf", kToneMap});
    }
    if (!walk->colourTagged) words.insert(words.end(), kBt709Tags.begin(), kBt709Tags.end());
  }
  if (walk->videoCodec == "libx264" && !walk->pixelFormatGiven) {
    words.insert(words.end(), {"-pix_fmt", "yuv420p"});
  }
}

// Silence as a second input, after the first, ending with the picture.
void AddSilence(Walk* walk) {
  std::vector<std::string>& words = walk->words;
  const auto input = std::find(words.begin(), words.end(), "-i");
  if (input == words.end() || input + 1 == words.end()) return;
  words.insert(input + 2, {"-f", "lavfi", "-i", kSilence});
  words.push_back("-shortest");
}

}  // namespace

bool PlanFFmpeg(const std::vector<std::string>& libraryArgv, const std::string& stockFFmpeg,
                const EncoderCheck& stockHasEncoder, const SourceCheck& inspectSource,
                FFmpegPlan* plan, std::string* error) {
  if (libraryArgv.size() < 4) {
    return Fail(error, "expected options, \"-i\" with an input, and an output");
  }
  const size_t outputIndex = libraryArgv.size() - 1;
  std::string output = libraryArgv[outputIndex];
  if (FindOption(output)) return Fail(error, output + " needs a value");
  Walk walk;
  if (!WalkWords(libraryArgv, outputIndex, stockHasEncoder, &walk, error)) return false;
  if (!walk.hasInput) return Fail(error, "no input: \"-i\" is missing");

  FrameRateAsFilter(&walk);
  FFmpegPlan result;
  switch (walk.kind) {
    case OutputKind::kSegments:
      if (!FinishSegments(output, &walk, error)) return false;
      break;
    case OutputKind::kFragments:
      if (!FinishFragments(output, &walk, &result.fragments, error)) return false;
      output = result.fragments.stagingDir;
      break;
    case OutputKind::kWebM:
      FinishWebM(&walk);
      break;
    case OutputKind::kProgressive:
      break;
  }
  const SourceTraits source =
      walk.input.rfind("pipe:", 0) == 0 ? SourceTraits{} : inspectSource(walk.input);
  FinishPictures(source, &walk);
  if (walk.kind == OutputKind::kFragments && !source.hasAudio) AddSilence(&walk);
  result.kind = walk.kind;
  // No terminal dialogue (the transcoder's input is not a user), and the
  // staging directory or a reused segment name is no reason to stop.
  result.argv = {stockFFmpeg, "-nostdin", "-y"};
  result.argv.insert(result.argv.end(), walk.words.begin(), walk.words.end());
  result.argv.push_back(output);
  *plan = std::move(result);
  return true;
}

}  // namespace launchers
