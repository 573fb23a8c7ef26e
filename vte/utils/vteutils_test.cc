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
#include <unistd.h>

#include <chrono>
#include <set>
#include <string>
#include <vector>

#include "tests/support/child.h"
#include "tests/support/machine_root.h"
#include "toolkit/files.h"

namespace LibOrvoVTE {
namespace {

using Clock = std::chrono::steady_clock;

double SecondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
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

// retries = N costs N+1 seconds when the file never comes; a found file or
// an empty path answers at once.
TEST_F(VteUtilsTest, VerifyFileExistSleepsOnceMoreThanItRetries) {
  WriteScratch("present", "1");
  const struct {
    std::string path;
    unsigned int retries;
    bool expected;
    double minSeconds, maxSeconds;
  } kCases[] = {
      {Scratch("present"), 0, true, 0, 0.5},   {Scratch("present"), 3, true, 0, 0.5},
      {Scratch("absent"), 0, false, 0, 0.5},   {"", 3, false, 0, 0.5},
      {Scratch("absent"), 1, false, 2.0, 2.9},
  };
  for (const auto& c : kCases) {
    const Clock::time_point start = Clock::now();
    EXPECT_EQ(c.expected, VerifyFileExist(c.path, c.retries)) << c.path << " " << c.retries;
    const double elapsed = SecondsSince(start);
    EXPECT_GE(elapsed, c.minSeconds) << "path '" << c.path << "' retries " << c.retries;
    EXPECT_LT(elapsed, c.maxSeconds) << "path '" << c.path << "' retries " << c.retries;
  }
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

// Each row writes `content` over what the previous left; refused rows
// leave the file as it was, and no empty file ever appears.
TEST_F(VteUtilsTest, SaveFileReplacesTheWholeContentOrNothing) {
  const std::string path = Scratch("marker");
  const struct {
    std::string path, content;
    bool saved;
    std::string after;  // the marker's bytes afterwards
  } kCases[] = {
      {path, "123456", true, "123456"},
      {path, "78", true, "78"},
      {path, std::string("a\0b", 3), true, std::string("a\0b", 3)},
      {path, "", false, std::string("a\0b", 3)},
      {Scratch("never-created"), "", false, std::string("a\0b", 3)},
      {"", "content", false, std::string("a\0b", 3)},
      {Scratch("missing-dir/file"), "content", false, std::string("a\0b", 3)},
  };
  for (const auto& c : kCases) {
    EXPECT_EQ(c.saved, SaveFile(c.path, c.content)) << c.path << " '" << c.content << "'";
    EXPECT_EQ(c.after, toolkit::ReadWholeFile(path)) << c.path << " '" << c.content << "'";
  }
  struct stat st;
  EXPECT_NE(0, stat(Scratch("never-created").c_str(), &st)) << "no empty file may appear";
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

// Every codec libavcodec describes is named by libavcodec's own short name
// when it is one of the table's rows, and "" otherwise; the set of rows is
// pinned here, so a missing, extra or mistyped row shows. Two names differ
// from libavcodec's because other code matches on them: "mpeg2", and
// "pcm_zork", which libavcodec does not describe at all.
TEST(GetCodecNameTest, NamesExactlyTheTablesCodecs) {
  std::set<std::string> named;
  for (const AVCodecDescriptor* d = avcodec_descriptor_next(nullptr); d != nullptr;
       d = avcodec_descriptor_next(d)) {
    const std::string name = GetCodecName(d->id);
    if (name.empty()) continue;
    EXPECT_EQ(d->id == AV_CODEC_ID_MPEG2VIDEO ? "mpeg2" : d->name, name) << "id " << d->id;
    named.insert(name);
  }
  std::string all;
  for (const std::string& name : named) all += name + " ";
  EXPECT_EQ(
      "aac aac_latm ac3 adpcm_4xm adpcm_adx adpcm_ct adpcm_ea adpcm_ea_maxis_xa adpcm_ea_r1 "
      "adpcm_ea_r2 adpcm_ea_r3 adpcm_ea_xas adpcm_g726 adpcm_ima_amv adpcm_ima_dk3 "
      "adpcm_ima_dk4 adpcm_ima_ea_eacs adpcm_ima_ea_sead adpcm_ima_iss adpcm_ima_qt "
      "adpcm_ima_smjpeg adpcm_ima_wav adpcm_ima_ws adpcm_ms adpcm_sbpro_2 adpcm_sbpro_3 "
      "adpcm_sbpro_4 adpcm_swf adpcm_thp adpcm_xa adpcm_yamaha alac amr_nb amr_wb ass cook dts "
      "dvaudio dvd_subtitle eac3 flac flv1 h264 hdmv_pgs_subtitle hevc mjpeg mov_text mp1 mp2 "
      "mp3 mp3adu mp3on4 mpeg1video mpeg2 mpeg4 pcm_alaw pcm_bluray pcm_dvd pcm_f32be "
      "pcm_f32le pcm_f64be pcm_f64le pcm_mulaw pcm_s16be pcm_s16le pcm_s16le_planar pcm_s24be "
      "pcm_s24daud pcm_s24le pcm_s32be pcm_s32le pcm_s8 pcm_u16be pcm_u16le pcm_u24be "
      "pcm_u24le pcm_u32be pcm_u32le pcm_u8 rv40 ssa subrip truehd vc1 vmdaudio vorbis wmapro "
      "wmav1 wmav2 wmv3 ",
      all);
  EXPECT_EQ("pcm_zork", GetCodecName(AV_CODEC_ID_PCM_ZORK));
  // Ids computed from plain integers (stored metadata, C callers) may be
  // negative, even the negation of a table row, or beyond every codec.
  for (int raw : {0, -1, -static_cast<int>(AV_CODEC_ID_AAC), -static_cast<int>(AV_CODEC_ID_DTS),
                  0x7fffffff}) {
    EXPECT_EQ("", GetCodecName(static_cast<AVCodecID>(raw))) << "id " << raw;
  }
}

}  // namespace
}  // namespace LibOrvoVTE
