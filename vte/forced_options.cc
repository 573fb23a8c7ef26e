// The stream's overrides of its transcoding profile: the audio encoder a
// client needs, and the frame size fitted to the source.

#include <cstddef>

#include "decisions/argument_helper.h"
#include "platform/log.h"
#include "vte/forced_options.h"
#include "vte/liborvovte.h"
#include "vte/utils/vteutils.h"

namespace LibOrvoVTE {

namespace {

constexpr char kLogTag[] = "liborvovte";

constexpr char kAudioIdFile[] = "audio_id";

bool IsCopyOnlyAudioOption(const std::string& option) {
  return option == "-ab" || option == "-ar" || option == "-ac";
}

std::string EncoderFor(const std::string& format) {
  if (format == "copy") return "copy";
  if (format == "mp3") return ArgumentHelper::GetMP3Encoder();
  if (format == "aac") return ArgumentHelper::GetAACEncoder();
  return "";
}

}  // namespace

namespace forced {

std::vector<std::string> AudioFormat(const std::vector<std::string>& options,
                                     const std::string& format) {
  const std::string encoder = EncoderFor(format);
  const bool copy = format == "copy";
  std::vector<std::string> forced;
  for (std::size_t i = 0; i < options.size(); ++i) {
    const std::string& option = options[i];
    if (option == "-acodec") {
      forced.push_back(option);
      forced.push_back(encoder);
      ++i;
    } else if (copy && IsCopyOnlyAudioOption(option)) {
      // Bit rate, sample rate and channels cannot be applied to copied audio.
      ++i;
    } else {
      forced.push_back(option);
    }
  }
  return forced;
}

}  // namespace forced

std::vector<std::string> VTEStream::ForceFFmpegAudioFormat(
    const std::vector<std::string>& options, const std::string& format) {
  return forced::AudioFormat(options, format);
}

std::vector<std::string> VTEStream::ForceFFmpegVideoSize(const std::vector<std::string>& options,
                                                         bool noAspect) const {
  // Software encodes fill the profile's box and tell players the display
  // aspect; the hardware engines take no aspect option, so they get the size
  // that keeps the source's aspect inside the box.
  const bool exactSize = !hardware_ && !noAspect;
  std::vector<std::string> forced;
  for (std::size_t i = 0; i < options.size(); ++i) {
    if (i == 0 || options[i - 1] != "-s") {
      forced.push_back(options[i]);
      continue;
    }
    unsigned int width = 0;
    unsigned int height = 0;
    ArgumentHelper(metadata_).GetTransVideoSize(options[i], exactSize, GetMetaVideoRotate(),
                                                width, height);
    if (width == 0 || height == 0) {
      ORVO_LOG(LOG_ERR, "Failed to GetTransVideoSize");
      forced.push_back(options[i]);
      continue;
    }
    forced.push_back(ToString<unsigned int>(width) + "x" + ToString<unsigned int>(height));
    // A source with its own sample aspect ratio is left to ffmpeg, which
    // carries it over to the output.
    const float aspect = static_cast<float>(width) / static_cast<float>(height);
    if (exactSize && aspect > 0 && metadata_.GetVideoSampleAspectRatioNum() == 0) {
      forced.push_back("-aspect");
      forced.push_back(ToString<float>(aspect));
    }
  }
  return forced;
}

std::string VTEStream::GetRequestAudioID() const {
  return ReadFile(GetVTEFileFullPath(kAudioIdFile));
}

bool VTEStream::IsSourceAudioCodec(const std::string& codec) const {
  return ArgumentHelper(metadata_).DoesAudioCodecMatch(GetRequestAudioID(), codec);
}

}  // namespace LibOrvoVTE
