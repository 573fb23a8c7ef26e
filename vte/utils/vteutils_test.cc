#include "vte/utils/vteutils.h"

extern "C" {
#include <libavcodec/avcodec.h>
}

#include <errno.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <vector>

#include "tests/support/child.h"
#include "tests/support/log_capture.h"
#include "tests/support/machine_root.h"

namespace LibOrvoVTE {
namespace {

using Clock = std::chrono::steady_clock;

double SecondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

std::string ReadBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

// Polls for the raw wait status so a death by signal can be told apart from
// an exit; kills and reaps the child when it outlives the deadline.
bool WaitRawStatus(pid_t pid, int timeoutSeconds, int& status) {
  for (int waitedMs = 0; waitedMs < timeoutSeconds * 1000; waitedMs += 10) {
    if (waitpid(pid, &status, WNOHANG) == pid) return true;
    usleep(10 * 1000);
  }
  kill(pid, SIGKILL);
  waitpid(pid, nullptr, 0);
  return false;
}

int SleepForAWhile() {
  for (int i = 0; i < 300; ++i) usleep(100 * 1000);
  return 0;
}

class VteUtilsTest : public orvotest::MachineRootTest {
 protected:
  std::string Scratch(const std::string& name) { return Root().At("/tmp/" + name); }
  void WriteScratch(const std::string& name, const std::string& bytes) {
    Root().WriteFile("/tmp/" + name, bytes);
  }
};

TEST_F(VteUtilsTest, VerifyFileExistAnswersAtOnceWithoutRetries) {
  const std::string present = Scratch("present");
  WriteScratch("present", "1");
  struct Case {
    std::string path;
    bool expected;
  };
  const Case cases[] = {{present, true}, {Scratch("absent"), false}, {"", false}};
  for (const Case& c : cases) {
    const Clock::time_point start = Clock::now();
    EXPECT_EQ(c.expected, VerifyFileExist(c.path, 0)) << "path '" << c.path << "'";
    EXPECT_LT(SecondsSince(start), 0.5) << "path '" << c.path << "'";
  }
}

TEST_F(VteUtilsTest, VerifyFileExistSleepsOnceMoreThanItRetries) {
  const Clock::time_point start = Clock::now();
  EXPECT_FALSE(VerifyFileExist(Scratch("never-there"), 1));
  const double elapsed = SecondsSince(start);
  EXPECT_GE(elapsed, 2.0);
  EXPECT_LT(elapsed, 2.9);
}

TEST_F(VteUtilsTest, VerifyFileExistSeesAFileThatAppearsWhileRetrying) {
  const std::string late = Scratch("late");
  pid_t writer = orvotest::StartChild([&late] {
    usleep(500 * 1000);
    FILE* file = fopen(late.c_str(), "w");
    return file != nullptr && fclose(file) == 0 ? 0 : 1;
  });
  ASSERT_GT(writer, 0);
  const Clock::time_point start = Clock::now();
  EXPECT_TRUE(VerifyFileExist(late, 3));
  EXPECT_LT(SecondsSince(start), 2.5);
  EXPECT_EQ(0, orvotest::WaitForChild(writer, 10));
}

// The file sits in a directory only root may enter; the process runs with an
// unprivileged effective user, as the web API does, and must get it back.
TEST_F(VteUtilsTest, VerifyFileExistLooksWithRootRightsAndRestoresTheEffectiveIds) {
  if (getuid() != 0) GTEST_SKIP() << "needs a real uid of root to switch effective ids";
  const std::string privateDir = Scratch("private");
  ASSERT_EQ(0, mkdir(privateDir.c_str(), 0700));
  const std::string hidden = privateDir + "/hidden";
  WriteScratch("private/hidden", "1");
  const struct passwd* nobody = getpwnam("nobody");
  ASSERT_NE(nullptr, nobody);
  const uid_t uid = nobody->pw_uid;
  const gid_t gid = nobody->pw_gid;

  int status = orvotest::RunInChild([&] {
    if (setresgid(-1, gid, -1) != 0 || setresuid(-1, uid, -1) != 0) return 10;
    struct stat st;
    if (stat(hidden.c_str(), &st) == 0) return 11;  // the setting proves nothing
    if (!VerifyFileExist(hidden, 0)) return 12;
    if (geteuid() != uid || getegid() != gid) return 13;
    return 0;
  });
  EXPECT_EQ(0, status) << "10 no switch, 11 file visible anyway, 12 not found, 13 ids kept";
}

TEST_F(VteUtilsTest, VerifyFileExistFailsAndLogsWhenRootRightsAreRefused) {
  if (getuid() != 0) GTEST_SKIP() << "needs root to drop to an unprivileged user";
  int status = orvotest::RunInChild([] {
    if (!orvotest::DropToUnprivilegedUser()) return 10;
    orvotest::LogCapture logs;
    if (VerifyFileExist("/", 0)) return 11;
    for (const orvotest::LoggedLine& line : logs.Lines()) {
      const std::string suffix = " ERROR: IF_RUN_AS(0, 0)";
      if (line.priority == (LOG_AUTH | LOG_ERR) && line.text.rfind("vteutils:", 0) == 0 &&
          line.text.size() > suffix.size() &&
          line.text.compare(line.text.size() - suffix.size(), suffix.size(), suffix) == 0) {
        return 0;
      }
    }
    return 12;
  });
  EXPECT_EQ(0, status) << "10 cannot drop, 11 found without root, 12 no log line";
}

TEST_F(VteUtilsTest, ReadFileReturnsAShortFilesTextUpToItsFirstNul) {
  struct Case {
    const char* name;
    std::string bytes;
    std::string expected;
  };
  const Case cases[] = {
      {"pid", "12345\n", "12345\n"},
      {"long", std::string(5000, 'x'), std::string(4096, 'x')},
      {"exact", std::string(4096, 'y'), std::string(4096, 'y')},
      {"leading-nul", std::string("\0abc", 4), ""},
      {"inner-nul", std::string("ab\0cd", 5), "ab"},
      {"empty", "", ""},
  };
  for (const Case& c : cases) {
    WriteScratch(c.name, c.bytes);
    EXPECT_EQ(c.expected, ReadFile(Scratch(c.name))) << c.name;
  }
  EXPECT_EQ("", ReadFile(Scratch("absent")));
  EXPECT_EQ("", ReadFile(""));
  EXPECT_EQ("", ReadFile(Root().At("/tmp"))) << "a directory";
}

TEST_F(VteUtilsTest, SaveFileReplacesTheWholeContent) {
  const std::string path = Scratch("marker");
  ASSERT_TRUE(SaveFile(path, "123456"));
  EXPECT_EQ("123456", ReadBytes(path));
  ASSERT_TRUE(SaveFile(path, "78"));
  EXPECT_EQ("78", ReadBytes(path)) << "the older, longer content must be gone";
  ASSERT_TRUE(SaveFile(path, std::string("a\0b", 3)));
  EXPECT_EQ(std::string("a\0b", 3), ReadBytes(path));
}

TEST_F(VteUtilsTest, SaveFileRefusesEmptyArgumentsAndLeavesTheFileAlone) {
  const std::string path = Scratch("kept");
  WriteScratch("kept", "original");
  EXPECT_FALSE(SaveFile(path, ""));
  EXPECT_EQ("original", ReadBytes(path));

  const std::string fresh = Scratch("never-created");
  EXPECT_FALSE(SaveFile(fresh, ""));
  struct stat st;
  EXPECT_NE(0, stat(fresh.c_str(), &st)) << "no empty file may appear";

  EXPECT_FALSE(SaveFile("", "content"));
  EXPECT_FALSE(SaveFile(Scratch("missing-dir/file"), "content"));
}

TEST(KillProcessTest, TerminatesARealChildWithSigterm) {
  pid_t child = orvotest::StartChild(SleepForAWhile);
  ASSERT_GT(child, 0);
  EXPECT_EQ(0, KillProcess(child));
  int status = 0;
  ASSERT_TRUE(WaitRawStatus(child, 10, status)) << "the child ignored the signal";
  ASSERT_TRUE(WIFSIGNALED(status));
  EXPECT_EQ(SIGTERM, WTERMSIG(status));
}

volatile sig_atomic_t gTermReceived = 0;

// kill(0) would reach the whole process group and kill(-5) the group 5; the
// test runs in a group of its own with a sibling that must survive, and a
// signal that reaches the caller is counted.
TEST(KillProcessTest, RefusesPidsBelowOneWithoutSendingAnything) {
  int status = orvotest::RunInChild([] {
    if (setpgid(0, 0) != 0) return 10;
    pid_t sibling = orvotest::StartChild(SleepForAWhile);
    if (sibling < 0) return 11;
    signal(SIGTERM, [](int) { gTermReceived = 1; });
    int failure = 0;
    for (int pid : {0, -5}) {
      errno = 0;
      if (KillProcess(pid) != -1) failure = 20;
      if (errno != 0) failure = 21;  // kill(2) was called and set it
    }
    usleep(200 * 1000);
    int siblingStatus = 0;
    const bool siblingAlive = waitpid(sibling, &siblingStatus, WNOHANG) == 0;
    kill(sibling, SIGKILL);
    waitpid(sibling, nullptr, 0);
    if (failure != 0) return failure;
    if (gTermReceived) return 22;
    return siblingAlive ? 0 : 23;
  });
  EXPECT_EQ(0, status) << "20 wrong result, 21 kill called, 22 caller signalled, 23 sibling died";
}

TEST(StringExplodeTest, SplitsAtEveryDelimiterAndDropsEmptyTokens) {
  struct Case {
    std::string text;
    std::string delimiters;
    std::vector<std::string> expected;
  };
  const Case cases[] = {
      {"a,,b", ",", {"a", "b"}},
      {"", ",", {}},
      {",,,", ",", {}},
      {",a,", ",", {"a"}},
      {"abc", ",", {"abc"}},
      {"a b\tc", " \t", {"a", "b", "c"}},
      {"x=1;y=2", ";=", {"x", "1", "y", "2"}},
      {"1920x1080", "x", {"1920", "1080"}},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(c.expected, StringExplode(c.text, c.delimiters))
        << "'" << c.text << "' at '" << c.delimiters << "'";
  }
}

TEST(ToStringTest, FormatsLikeADefaultStream) {
  EXPECT_EQ("0", ToString<unsigned int>(0));
  EXPECT_EQ("4294967295", ToString<unsigned int>(4294967295u));
  struct Case {
    float value;
    const char* expected;
  };
  const Case cases[] = {
      {1.5f, "1.5"},       {100.0f, "100"},     {23.976f, "23.976"}, {1234567.0f, "1.23457e+06"},
      {0.0001f, "0.0001"}, {0.00001f, "1e-05"}, {-2.25f, "-2.25"},
  };
  for (const Case& c : cases) EXPECT_EQ(c.expected, ToString<float>(c.value)) << c.expected;
}

// The table's rows in order. Each is named by libavcodec's own short name
// except where other code compares against the system's spelling; the
// library is the independent witness for all the others.
// clang-format off
const AVCodecID kTableIds[] = {
    AV_CODEC_ID_DTS, AV_CODEC_ID_AC3, AV_CODEC_ID_MP3, AV_CODEC_ID_MP3ADU, AV_CODEC_ID_MP3ON4,
    AV_CODEC_ID_MP2, AV_CODEC_ID_AAC, AV_CODEC_ID_AAC_LATM, AV_CODEC_ID_VORBIS, AV_CODEC_ID_WMAV1,
    AV_CODEC_ID_WMAV2, AV_CODEC_ID_WMAPRO, AV_CODEC_ID_FLAC, AV_CODEC_ID_MJPEG, AV_CODEC_ID_MPEG4,
    AV_CODEC_ID_H264, AV_CODEC_ID_HEVC, AV_CODEC_ID_MPEG2VIDEO, AV_CODEC_ID_VC1, AV_CODEC_ID_WMV3,
    AV_CODEC_ID_RV40, AV_CODEC_ID_EAC3, AV_CODEC_ID_TRUEHD, AV_CODEC_ID_MP1, AV_CODEC_ID_COOK,
    AV_CODEC_ID_ALAC, AV_CODEC_ID_DVAUDIO, AV_CODEC_ID_VMDAUDIO, AV_CODEC_ID_AMR_NB,
    AV_CODEC_ID_AMR_WB, AV_CODEC_ID_PCM_S16LE, AV_CODEC_ID_PCM_S16BE, AV_CODEC_ID_PCM_U16LE,
    AV_CODEC_ID_PCM_U16BE, AV_CODEC_ID_PCM_S8, AV_CODEC_ID_PCM_U8, AV_CODEC_ID_PCM_MULAW,
    AV_CODEC_ID_PCM_ALAW, AV_CODEC_ID_PCM_S32LE, AV_CODEC_ID_PCM_S32BE, AV_CODEC_ID_PCM_U32LE,
    AV_CODEC_ID_PCM_U32BE, AV_CODEC_ID_PCM_S24LE, AV_CODEC_ID_PCM_S24BE, AV_CODEC_ID_PCM_U24LE,
    AV_CODEC_ID_PCM_U24BE, AV_CODEC_ID_PCM_S24DAUD, AV_CODEC_ID_PCM_ZORK,
    AV_CODEC_ID_PCM_S16LE_PLANAR, AV_CODEC_ID_PCM_DVD, AV_CODEC_ID_PCM_F32BE,
    AV_CODEC_ID_PCM_F32LE, AV_CODEC_ID_PCM_F64BE, AV_CODEC_ID_PCM_F64LE, AV_CODEC_ID_PCM_BLURAY,
    AV_CODEC_ID_ADPCM_IMA_QT, AV_CODEC_ID_ADPCM_IMA_WAV, AV_CODEC_ID_ADPCM_IMA_DK3,
    AV_CODEC_ID_ADPCM_IMA_DK4, AV_CODEC_ID_ADPCM_IMA_WS, AV_CODEC_ID_ADPCM_IMA_SMJPEG,
    AV_CODEC_ID_ADPCM_MS, AV_CODEC_ID_ADPCM_4XM, AV_CODEC_ID_ADPCM_XA, AV_CODEC_ID_ADPCM_ADX,
    AV_CODEC_ID_ADPCM_EA, AV_CODEC_ID_ADPCM_G726, AV_CODEC_ID_ADPCM_CT, AV_CODEC_ID_ADPCM_SWF,
    AV_CODEC_ID_ADPCM_YAMAHA, AV_CODEC_ID_ADPCM_SBPRO_4, AV_CODEC_ID_ADPCM_SBPRO_3,
    AV_CODEC_ID_ADPCM_SBPRO_2, AV_CODEC_ID_ADPCM_THP, AV_CODEC_ID_ADPCM_IMA_AMV,
    AV_CODEC_ID_ADPCM_EA_R1, AV_CODEC_ID_ADPCM_EA_R3, AV_CODEC_ID_ADPCM_EA_R2,
    AV_CODEC_ID_ADPCM_IMA_EA_SEAD, AV_CODEC_ID_ADPCM_IMA_EA_EACS, AV_CODEC_ID_ADPCM_EA_XAS,
    AV_CODEC_ID_ADPCM_EA_MAXIS_XA, AV_CODEC_ID_ADPCM_IMA_ISS, AV_CODEC_ID_FLV1,
    AV_CODEC_ID_MPEG1VIDEO, AV_CODEC_ID_SUBRIP, AV_CODEC_ID_SSA, AV_CODEC_ID_ASS,
    AV_CODEC_ID_HDMV_PGS_SUBTITLE, AV_CODEC_ID_DVD_SUBTITLE, AV_CODEC_ID_MOV_TEXT,
};
// clang-format on

std::string ExpectedName(AVCodecID id) {
  if (id == AV_CODEC_ID_MPEG2VIDEO) return "mpeg2";
  if (id == AV_CODEC_ID_PCM_ZORK) return "pcm_zork";  // libavcodec has no name for it
  return avcodec_get_name(id);
}

TEST(GetCodecNameTest, NamesEveryCodecOfTheTable) {
  EXPECT_EQ(91u, std::size(kTableIds));
  for (AVCodecID id : kTableIds) EXPECT_EQ(ExpectedName(id), GetCodecName(id)) << "id " << id;
  // The names other code matches on, spelled out.
  EXPECT_EQ("mpeg2", GetCodecName(AV_CODEC_ID_MPEG2VIDEO));
  EXPECT_EQ("flv1", GetCodecName(AV_CODEC_ID_FLV1));
  EXPECT_EQ("dts", GetCodecName(AV_CODEC_ID_DTS));
  EXPECT_EQ("h264", GetCodecName(AV_CODEC_ID_H264));
  EXPECT_EQ("mov_text", GetCodecName(AV_CODEC_ID_MOV_TEXT));
}

// Every codec libavcodec knows is named exactly when it is a table row, so
// an extra or missing row shows up here.
TEST(GetCodecNameTest, NamesNoCodecOutsideTheTable) {
  const std::set<int> tableIds(std::begin(kTableIds), std::end(kTableIds));
  int checked = 0;
  for (const AVCodecDescriptor* d = avcodec_descriptor_next(nullptr); d != nullptr;
       d = avcodec_descriptor_next(d)) {
    if (tableIds.count(d->id)) continue;
    EXPECT_EQ("", GetCodecName(d->id)) << d->name;
    ++checked;
  }
  EXPECT_GT(checked, 100);
  for (AVCodecID id : {AV_CODEC_ID_NONE, AV_CODEC_ID_VP9, AV_CODEC_ID_OPUS}) {
    EXPECT_EQ("", GetCodecName(id)) << "id " << id;
  }
  // Ids computed from plain integers (stored metadata, C callers) may be
  // negative, even the negation of a table row, or beyond every codec.
  for (int raw :
       {-1, -static_cast<int>(AV_CODEC_ID_AAC), -static_cast<int>(AV_CODEC_ID_DTS), 0x7fffffff}) {
    EXPECT_EQ("", GetCodecName(static_cast<AVCodecID>(raw))) << "id " << raw;
  }
}

}  // namespace
}  // namespace LibOrvoVTE
