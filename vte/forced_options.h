// The rewrite behind VTEStream::ForceFFmpegAudioFormat, for the stream
// kinds' const command-line builders: the exported member is not const.
#pragma once

#include <string>
#include <vector>

namespace LibOrvoVTE {
namespace forced {

// `options` with the encoder after "-acodec" replaced for `format` ("copy",
// "mp3", "aac"); a copy also loses the bit rate, rate and channel options.
std::vector<std::string> AudioFormat(const std::vector<std::string>& options,
                                     const std::string& format);

}  // namespace forced
}  // namespace LibOrvoVTE
