#include "vte/utils/vteutils.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>

#include <sstream>

#include "platform/fixed_waits.h"
#include "platform/run_as.h"

namespace LibOrvoVTE {
namespace {

constexpr char kLogTag[] = "vteutils";

// Marker files hold a pid, an id or a flag; nothing longer is read.
constexpr size_t kReadFileLimit = 4096;

struct CodecName {
  const char* name;
  AVCodecID id;
};

// Names other processes and stored metadata compare against, so they stay as
// they are even where libavcodec's own short name differs ("mpeg2"). DTS comes
// first and is answered without a search.
constexpr CodecName kCodecNames[] = {
    {"dts", AV_CODEC_ID_DTS},
    {"ac3", AV_CODEC_ID_AC3},
    {"mp3", AV_CODEC_ID_MP3},
    {"mp3adu", AV_CODEC_ID_MP3ADU},
    {"mp3on4", AV_CODEC_ID_MP3ON4},
    {"mp2", AV_CODEC_ID_MP2},
    {"aac", AV_CODEC_ID_AAC},
    {"aac_latm", AV_CODEC_ID_AAC_LATM},
    {"vorbis", AV_CODEC_ID_VORBIS},
    {"wmav1", AV_CODEC_ID_WMAV1},
    {"wmav2", AV_CODEC_ID_WMAV2},
    {"wmapro", AV_CODEC_ID_WMAPRO},
    {"flac", AV_CODEC_ID_FLAC},
    {"mjpeg", AV_CODEC_ID_MJPEG},
    {"mpeg4", AV_CODEC_ID_MPEG4},
    {"h264", AV_CODEC_ID_H264},
    {"hevc", AV_CODEC_ID_HEVC},
    {"mpeg2", AV_CODEC_ID_MPEG2VIDEO},
    {"vc1", AV_CODEC_ID_VC1},
    {"wmv3", AV_CODEC_ID_WMV3},
    {"rv40", AV_CODEC_ID_RV40},
    {"eac3", AV_CODEC_ID_EAC3},
    {"truehd", AV_CODEC_ID_TRUEHD},
    {"mp1", AV_CODEC_ID_MP1},
    {"cook", AV_CODEC_ID_COOK},
    {"alac", AV_CODEC_ID_ALAC},
    {"dvaudio", AV_CODEC_ID_DVAUDIO},
    {"vmdaudio", AV_CODEC_ID_VMDAUDIO},
    {"amr_nb", AV_CODEC_ID_AMR_NB},
    {"amr_wb", AV_CODEC_ID_AMR_WB},
    {"pcm_s16le", AV_CODEC_ID_PCM_S16LE},
    {"pcm_s16be", AV_CODEC_ID_PCM_S16BE},
    {"pcm_u16le", AV_CODEC_ID_PCM_U16LE},
    {"pcm_u16be", AV_CODEC_ID_PCM_U16BE},
    {"pcm_s8", AV_CODEC_ID_PCM_S8},
    {"pcm_u8", AV_CODEC_ID_PCM_U8},
    {"pcm_mulaw", AV_CODEC_ID_PCM_MULAW},
    {"pcm_alaw", AV_CODEC_ID_PCM_ALAW},
    {"pcm_s32le", AV_CODEC_ID_PCM_S32LE},
    {"pcm_s32be", AV_CODEC_ID_PCM_S32BE},
    {"pcm_u32le", AV_CODEC_ID_PCM_U32LE},
    {"pcm_u32be", AV_CODEC_ID_PCM_U32BE},
    {"pcm_s24le", AV_CODEC_ID_PCM_S24LE},
    {"pcm_s24be", AV_CODEC_ID_PCM_S24BE},
    {"pcm_u24le", AV_CODEC_ID_PCM_U24LE},
    {"pcm_u24be", AV_CODEC_ID_PCM_U24BE},
    {"pcm_s24daud", AV_CODEC_ID_PCM_S24DAUD},
    {"pcm_zork", AV_CODEC_ID_PCM_ZORK},
    {"pcm_s16le_planar", AV_CODEC_ID_PCM_S16LE_PLANAR},
    {"pcm_dvd", AV_CODEC_ID_PCM_DVD},
    {"pcm_f32be", AV_CODEC_ID_PCM_F32BE},
    {"pcm_f32le", AV_CODEC_ID_PCM_F32LE},
    {"pcm_f64be", AV_CODEC_ID_PCM_F64BE},
    {"pcm_f64le", AV_CODEC_ID_PCM_F64LE},
    {"pcm_bluray", AV_CODEC_ID_PCM_BLURAY},
    {"adpcm_ima_qt", AV_CODEC_ID_ADPCM_IMA_QT},
    {"adpcm_ima_wav", AV_CODEC_ID_ADPCM_IMA_WAV},
    {"adpcm_ima_dk3", AV_CODEC_ID_ADPCM_IMA_DK3},
    {"adpcm_ima_dk4", AV_CODEC_ID_ADPCM_IMA_DK4},
    {"adpcm_ima_ws", AV_CODEC_ID_ADPCM_IMA_WS},
    {"adpcm_ima_smjpeg", AV_CODEC_ID_ADPCM_IMA_SMJPEG},
    {"adpcm_ms", AV_CODEC_ID_ADPCM_MS},
    {"adpcm_4xm", AV_CODEC_ID_ADPCM_4XM},
    {"adpcm_xa", AV_CODEC_ID_ADPCM_XA},
    {"adpcm_adx", AV_CODEC_ID_ADPCM_ADX},
    {"adpcm_ea", AV_CODEC_ID_ADPCM_EA},
    {"adpcm_g726", AV_CODEC_ID_ADPCM_G726},
    {"adpcm_ct", AV_CODEC_ID_ADPCM_CT},
    {"adpcm_swf", AV_CODEC_ID_ADPCM_SWF},
    {"adpcm_yamaha", AV_CODEC_ID_ADPCM_YAMAHA},
    {"adpcm_sbpro_4", AV_CODEC_ID_ADPCM_SBPRO_4},
    {"adpcm_sbpro_3", AV_CODEC_ID_ADPCM_SBPRO_3},
    {"adpcm_sbpro_2", AV_CODEC_ID_ADPCM_SBPRO_2},
    {"adpcm_thp", AV_CODEC_ID_ADPCM_THP},
    {"adpcm_ima_amv", AV_CODEC_ID_ADPCM_IMA_AMV},
    {"adpcm_ea_r1", AV_CODEC_ID_ADPCM_EA_R1},
    {"adpcm_ea_r3", AV_CODEC_ID_ADPCM_EA_R3},
    {"adpcm_ea_r2", AV_CODEC_ID_ADPCM_EA_R2},
    {"adpcm_ima_ea_sead", AV_CODEC_ID_ADPCM_IMA_EA_SEAD},
    {"adpcm_ima_ea_eacs", AV_CODEC_ID_ADPCM_IMA_EA_EACS},
    {"adpcm_ea_xas", AV_CODEC_ID_ADPCM_EA_XAS},
    {"adpcm_ea_maxis_xa", AV_CODEC_ID_ADPCM_EA_MAXIS_XA},
    {"adpcm_ima_iss", AV_CODEC_ID_ADPCM_IMA_ISS},
    {"flv1", AV_CODEC_ID_FLV1},
    {"mpeg1video", AV_CODEC_ID_MPEG1VIDEO},
    {"subrip", AV_CODEC_ID_SUBRIP},
    {"ssa", AV_CODEC_ID_SSA},
    {"ass", AV_CODEC_ID_ASS},
    {"hdmv_pgs_subtitle", AV_CODEC_ID_HDMV_PGS_SUBTITLE},
    {"dvd_subtitle", AV_CODEC_ID_DVD_SUBTITLE},
    {"mov_text", AV_CODEC_ID_MOV_TEXT},
    {nullptr, AV_CODEC_ID_NONE},
};

}  // namespace

bool VerifyFileExist(const std::string& path, unsigned int retries) {
  if (path.empty()) return false;
  bool exists = false;
  IF_RUN_AS(0, 0) {
    struct stat st;
    for (unsigned int attempt = 0;;) {
      if (stat(path.c_str(), &st) == 0) {
        exists = true;
        break;
      }
      if (retries == 0) break;
      // Callers count on retries = N costing N+1 seconds: the last failed
      // test is still followed by a sleep.
      librh::waits::Sleep(1);
      if (++attempt > retries) break;
    }
  }
  return exists;
}

std::string ReadFile(const std::string& path) {
  if (path.empty()) return "";
  FILE* file = fopen(path.c_str(), "re");
  if (file == nullptr) return "";
  // One spare byte keeps the buffer NUL-terminated when the file fills it.
  char buffer[kReadFileLimit + 1] = {};
  size_t count = fread(buffer, 1, kReadFileLimit, file);
  fclose(file);
  if (count == 0) return "";
  return std::string(buffer);
}

bool HasControlCharacter(const std::string& text) {
  for (const char c : text) {
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) return true;
  }
  return false;
}

bool SaveFile(const std::string& path, const std::string& content) {
  // An empty marker file would read back as "no value" to the next request,
  // so an empty content is refused rather than written.
  if (path.empty() || content.empty()) return false;
  FILE* file = fopen(path.c_str(), "w+e");
  if (file == nullptr) return false;
  fwrite(content.data(), 1, content.size(), file);
  fclose(file);
  return true;
}

std::vector<std::string> StringExplode(const std::string& text, const std::string& delimiters) {
  std::vector<std::string> tokens;
  if (text.empty()) return tokens;
  char* copy = strdup(text.c_str());
  if (copy == nullptr) return tokens;
  char* state = nullptr;
  for (char* token = strtok_r(copy, delimiters.c_str(), &state); token != nullptr;
       token = strtok_r(nullptr, delimiters.c_str(), &state)) {
    tokens.emplace_back(token);
  }
  free(copy);
  return tokens;
}

template <typename T>
std::string ToString(T value) {
  std::ostringstream out;
  out << value;
  return out.str();
}

template std::string ToString<unsigned int>(unsigned int);
template std::string ToString<float>(float);

std::string GetCodecName(AVCodecID id) {
  if (static_cast<int>(id) < 0) return "";
  if (id == kCodecNames[0].id) return kCodecNames[0].name;
  for (const CodecName* row = kCodecNames + 1; row->name != nullptr; ++row) {
    if (row->id == id) return row->name;
  }
  return "";
}

}  // namespace LibOrvoVTE
