// Starting a session's transcoder as a GStreamer pipeline, on platforms whose
// hardware engine is driven through GStreamer.
#include <exception>

#include "decisions/argument_helper.h"
#include "decisions/platform_utils.h"
#include "vte/liborvovte.h"
#include "vte/transcoder_process.h"
#include "vte/utils/vteutils.h"

namespace LibOrvoVTE {
namespace {

constexpr char kAudioFormatFile[] = "audio_format";

// Profile placeholders that only Braswell's encoder fills in.
constexpr char kVerticalPlaceholder[] = "@VERTICAL@";
constexpr char kFlipElement[] = "videoflip";

using Words = std::vector<std::string>;

void Append(Words& to, const Words& words) { to.insert(to.end(), words.begin(), words.end()); }

// A queue that never drops: the muxer waits on both branches, so a bounded
// queue in one of them would stall the whole pipeline.
const Words kUnboundedQueue = {"!", "queue", "max-size-time=0", "max-size-buffers=0",
                               "max-size-bytes=0", "!"};
// The casting device gets stereo AAC at an average bit rate, whatever the
// profile says.
const Words kChromecastAac = {"audioconvert", "!", "audio/x-raw,channels=2", "!", "faac",
                              "rate-control=ABR", "!", "queue", "!", "aacparse"};

// Profile part `index` of "<video chain>$<audio chain>$<muxer>" ("" when
// missing).
std::string ProfilePart(const std::string& profile, int index) {
  std::string::size_type begin = 0;
  for (int part = 0; part < index; ++part) {
    begin = profile.find('$', begin);
    if (begin == std::string::npos) return "";
    ++begin;
  }
  return profile.substr(begin, profile.find('$', begin) - begin);
}

// Braswell's encoder is told about portrait video and turns the picture
// itself; elsewhere the profile's chain stands as written.
Words VideoChain(const std::string& chain, bool braswell, unsigned int rotation) {
  const Words tokens = StringExplode(chain, " ");
  if (!braswell) return tokens;
  Words words;
  for (Words::size_type i = 0; i < tokens.size(); ++i) {
    if (tokens[i] == kVerticalPlaceholder) {
      if (rotation == 90 || rotation == 270) words.push_back("vertical-video=true");
    } else if (tokens[i] == kFlipElement) {
      if (rotation == 0) {
        ++i;  // the flip's own property goes with it
        continue;
      }
      words.push_back(kFlipElement);
      words.push_back("method=" + std::to_string(rotation / 90));
    } else {
      words.push_back(tokens[i]);
    }
  }
  return words;
}

}  // namespace

namespace transcoder {

Words GstreamerArguments(const PipelineParts& parts) {
  // The platform's launcher seeks before it plays; on Monaco asf sources
  // take the launcher's other seek option.
  const bool asfSeek = parts.monaco && parts.container.find("asf") != std::string::npos;
  Words argv = {parts.program, "-f", asfSeek ? "-S" : "-s", std::to_string(parts.seekSeconds),
                "filesrc", "location=" + parts.filePath, "!"};
  Append(argv, parts.demuxer);
  Append(argv, parts.videoDecoding);
  if (!parts.demuxByDecodebin) argv.push_back("!");
  if (parts.braswell && parts.fourK) {
    // Braswell's encoder keeps up with 4K only at cinema rate.
    Append(argv, {"videorate", "!", "video/x-raw,framerate=24/1", "!"});
  }
  Append(argv, VideoChain(ProfilePart(parts.profileArgs, 0), parts.braswell, parts.rotation));
  Append(argv, kUnboundedQueue);

  const std::string muxer = ProfilePart(parts.profileArgs, 2);
  argv.push_back(muxer);
  // Segments cut after a seek continue the timeline of the whole file.
  if (parts.shiftTimestamps && muxer == "mpegtsmux") {
    argv.push_back("shift-pts=" + std::to_string(parts.seekSeconds));
  }
  Append(argv, {"name=mux", "!", "queue", "!"});
  Append(argv, parts.sink);

  if (parts.audioMap.empty()) return argv;
  argv.push_back(parts.audioMap);
  Append(argv, parts.audioDecoding);
  if (!parts.copyAudio || parts.demuxByDecodebin) {
    Append(argv, parts.chromecastAac ? kChromecastAac
                                     : StringExplode(ProfilePart(parts.profileArgs, 1), " "));
  }
  Append(argv, kUnboundedQueue);
  argv.push_back("mux.");
  return argv;
}

}  // namespace transcoder

bool VTEStream::ExecuteGstreamerTranscoding(long seekSeconds, const std::vector<std::string>& sink,
                                            const std::string& program, bool shiftTimestamps) {
  try {
    if (type_.empty() || streamId_.empty() || program.empty() || profileArgs_.empty() ||
        seekSeconds < 0) {
      return false;
    }
    transcoder::PipelineParts parts;
    parts.filePath = metadata_.GetFilePath();
    if (parts.filePath.empty()) return false;

    const librh::util::PlatformUtils& platform = librh::util::PlatformUtils::GetInst();
    ArgumentHelper helper(metadata_);
    parts.program = program;
    parts.seekSeconds = seekSeconds;
    parts.monaco = platform.IsMonaco();
    parts.braswell = platform.IsBraswell();
    parts.container = metadata_.GetContainer();
    parts.demuxer = helper.GetGstreamDemuxer();
    parts.demuxByDecodebin = helper.IsDemuxByDecodebin();
    parts.videoDecoding = helper.GetGstreamVideoArgument();
    parts.fourK =
        ArgumentHelper::Is4kVideo(metadata_.GetVideoResolutionX(), metadata_.GetVideoResolutionY());
    parts.rotation = GetMetaVideoRotate();
    parts.profileArgs = profileArgs_;
    parts.shiftTimestamps = shiftTimestamps;
    parts.sink = sink;

    const std::string audioId = GetRequestAudioID();
    // Without a usable audio track the demuxer has no pad for an audio
    // branch, and gst-launch refuses a branch that starts nowhere: the
    // pipeline ends after the sink.
    if (!helper.GetAudioTrackInfoByID(audioId).isNull()) {
      parts.audioMap = helper.GetGstreamAudioMap(audioId);
      const std::string audioFormat = ReadFile(GetVTEFileFullPath(kAudioFormatFile));
      parts.copyAudio = audioFormat == "ac3_copy" && (helper.DoesAudioCodecMatch(audioId, "ac3") ||
                                                      helper.DoesAudioCodecMatch(audioId, "eac3"));
      parts.audioDecoding = helper.GetGstreamAudioArgument(audioId, parts.copyAudio);
      parts.chromecastAac = metadata_.GetDevice() == "chromecast" && audioFormat == "aac";
    }
    const std::vector<std::string> argv = transcoder::GstreamerArguments(parts);

    if (!remux_ && !transcoder::Register(hardware_, type_ + "/" + streamId_)) return false;
    std::vector<int> passed;
    for (const std::string& word : sink) passed.push_back(transcoder::PassedDescriptor(word, "fd="));
    return transcoder::ExecAsRoot("Execute GStreamer", argv, passed);
  } catch (const std::exception&) {
    return false;
  }
}

}  // namespace LibOrvoVTE
