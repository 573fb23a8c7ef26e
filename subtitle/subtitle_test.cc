#include "subtitle/subtitle.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <vector>

#include "tests/support/child.h"
#include "tests/support/log_capture.h"
#include "tests/support/machine_root.h"

namespace librh {
namespace subtitle {
namespace {

// "dirname|basename|extension|language|filename"
std::string Parts(const std::string& path) {
  const Json::Value info = PathInfo(path);
  std::string text;
  const char* separator = "";
  for (const char* key : {"dirname", "basename", "extension", "language", "filename"}) {
    if (!info.isMember(key) || !info[key].isString()) return std::string("no string ") + key;
    text += separator + info[key].asString();
    separator = "|";
  }
  return text;
}

TEST(PathInfo, SplitsPathsTheWayTheSubtitleListNeeds) {
  const struct {
    const char* path;
    const char* parts;
  } cases[] = {
      {"/v/Movie.eng.srt", "/v|Movie.eng.srt|srt|eng|Movie.eng"},
      {"/v/Movie", "/v|Movie|||Movie"},
      {"Movie.mkv", "Movie.mkv|Movie.mkv|||Movie.mkv"},
      {"/v/a.b/Movie", "/v/a.b|Movie|||Movie"},
      {"/v/a.b/Movie.mkv", "/v/a.b|Movie.mkv|mkv||Movie"},
      {"/v/Movie..srt", "/v|Movie..srt|srt||Movie."},
      {"/v/.srt", "/v|.srt|srt||"},
      {"/Movie.chi.ass", "|Movie.chi.ass|ass|chi|Movie.chi"},
      {"", "||||"},
  };
  for (const auto& c : cases) EXPECT_EQ(c.parts, Parts(c.path)) << c.path;
}

// A file the search may find, readable only for root with mode 0.
std::string Touch(const std::string& path, mode_t mode = 0644) {
  std::ofstream(path) << "1\n00:00:00,000 --> 00:00:01,000\nHello\n";
  chmod(path.c_str(), mode);
  return path;
}

std::string Joined(const Json::Value& list) {
  std::string text;
  for (const Json::Value& item : list) text += item.asString() + "\n";
  return text;
}

using GetExternalSubtitleTest = orvotest::MachineRootTest;

TEST_F(GetExternalSubtitleTest, FindsTheVideosSubtitlesPatternByPattern) {
  const std::string d = Root().Path();
  for (const char* name : {"Movie.smi", "Movie.fre.SaMi", "Movie.chi.ass", "Movie.ssa",
                           "Movie.srt", "Movie.eng.srt", "Movie.SRT", "Movie2.srt",
                           "Other.srt", "Movie.txt", "Movie.srt.bak", "Moviesrt"}) {
    Touch(d + "/" + name);
  }
  Json::Value out(Json::arrayValue);
  out.append("kept");
  ASSERT_EQ(0, GetExternalSubtitle(Touch(d + "/Movie.mkv"), out));
  // Every .srt before any .ssa, .ass, .smi or .sami; glob's byte order within
  // a pattern; Movie2.srt belongs to another video.
  EXPECT_EQ("kept\n" + d + "/Movie.SRT\n" + d + "/Movie.eng.srt\n" + d + "/Movie.srt\n" + d +
                "/Movie.ssa\n" + d + "/Movie.chi.ass\n" + d + "/Movie.smi\n" + d +
                "/Movie.fre.SaMi\n",
            Joined(out));
  char cwd[4096];
  ASSERT_NE(nullptr, getcwd(cwd, sizeof(cwd)));
  EXPECT_EQ(d, cwd) << "the search works in the video's directory and stays there";

  Json::Value untouched(Json::arrayValue);
  EXPECT_EQ(-1, GetExternalSubtitle("", untouched));
  EXPECT_EQ(-1, GetExternalSubtitleImp("", untouched));
  EXPECT_EQ(0u, untouched.size());
}

// Root reads every file, so the unreadable file is only skipped for a user
// without rights; such a user is also refused the switch to root.
TEST_F(GetExternalSubtitleTest, SkipsUnreadableFilesAndNeedsRootRights) {
  const std::string d = Root().Path();
  const std::string video = Touch(d + "/Movie.mkv");
  Touch(d + "/Movie.srt");
  Touch(d + "/Movie.locked.srt", 0);
  const std::string seen = orvotest::TextFromChild([&] {
    if (!orvotest::DropToUnprivilegedUser()) return std::string("could not drop rights");
    orvotest::LogCapture log;
    Json::Value own(Json::arrayValue);
    const int ownResult = GetExternalSubtitleImp(video, own);
    Json::Value asRoot(Json::arrayValue);
    const int rootResult = GetExternalSubtitle(video, asRoot);
    return "own rights " + std::to_string(ownResult) + ": " + Joined(own) + "as root " +
           std::to_string(rootResult) + ": " + Joined(asRoot) +
           (log.Has(LOG_AUTH | LOG_ERR, "subtitle:112 ERROR: IF_RUN_AS(0, 0)") ? "logged"
                                                                                 : log.Dump());
  });
  EXPECT_EQ("own rights 0: " + d + "/Movie.srt\nas root -1: logged", seen);
}

}  // namespace
}  // namespace subtitle
}  // namespace librh
