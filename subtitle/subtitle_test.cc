#include "subtitle/subtitle.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <string>

#include "tests/support/child.h"
#include "tests/support/machine_root.h"

namespace librh {
namespace subtitle {
namespace {

TEST(PathInfo, SplitsPathsTheWayTheSubtitleListNeeds) {
  const struct {
    const char* path;
    const char* parts;  // dirname|basename|extension|language|filename
  } rows[] = {
      {"/v/Movie.eng.srt", "/v|Movie.eng.srt|srt|eng|Movie.eng"},
      {"/v/Movie", "/v|Movie|||Movie"},
      {"Movie.mkv", "Movie.mkv|Movie.mkv|||Movie.mkv"},
      {"/v/a.b/Movie", "/v/a.b|Movie|||Movie"},
      {"/v/Movie..srt", "/v|Movie..srt|srt||Movie."},
      {"/v/.srt", "/v|.srt|srt||"},
      {"/Movie.chi.ass", "|Movie.chi.ass|ass|chi|Movie.chi"},
      {"", "||||"},
  };
  for (const auto& row : rows) {
    const Json::Value info = PathInfo(row.path);
    std::string parts;
    for (const char* key : {"dirname", "basename", "extension", "language", "filename"}) {
      parts += (parts.empty() && std::string(key) == "dirname" ? "" : "|") + info[key].asString();
    }
    EXPECT_EQ(row.parts, parts) << row.path;
  }
}

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

// Every .srt before any .ssa, .ass, .smi or .sami; glob's byte order within
// a pattern; Movie2.srt belongs to another video. The search runs in the
// video's directory and stays there.
TEST(GetExternalSubtitleTest, FindsTheVideosSubtitlesPatternByPattern) {
  orvotest::MachineRoot root;
  const std::string d = root.Path();
  for (const char* name : {"Movie.smi", "Movie.fre.SaMi", "Movie.chi.ass", "Movie.ssa", "Movie.srt",
                           "Movie.eng.srt", "Movie.SRT", "Movie2.srt", "Other.srt", "Movie.txt",
                           "Movie.srt.bak", "Moviesrt"}) {
    Touch(d + "/" + name);
  }
  Json::Value out(Json::arrayValue);
  out.append("kept");
  ASSERT_EQ(0, GetExternalSubtitle(Touch(d + "/Movie.mkv"), out));
  EXPECT_EQ("kept\n" + d + "/Movie.SRT\n" + d + "/Movie.eng.srt\n" + d + "/Movie.srt\n" + d +
                "/Movie.ssa\n" + d + "/Movie.chi.ass\n" + d + "/Movie.smi\n" + d + "/Movie.fre.SaMi\n",
            Joined(out));
  char cwd[4096];
  ASSERT_NE(nullptr, getcwd(cwd, sizeof(cwd)));
  EXPECT_EQ(d, cwd);
  EXPECT_EQ(-1, GetExternalSubtitle("", out));

  // A user without rights skips what it cannot read, and is refused the
  // switch to root rather than searching with its own rights.
  Touch(d + "/Movie.locked.srt", 0);
  const std::string seen = orvotest::TextFromChild([&] {
    if (!orvotest::DropToUnprivilegedUser()) return std::string("could not drop rights");
    Json::Value own(Json::arrayValue), asRoot(Json::arrayValue);
    const int ownResult = GetExternalSubtitleImp(d + "/Movie.mkv", own);
    const int rootResult = GetExternalSubtitle(d + "/Movie.mkv", asRoot);
    return std::to_string(ownResult) + " " + std::to_string(Joined(own).find("locked")) + " " +
           std::to_string(rootResult) + " " + std::to_string(asRoot.size());
  });
  EXPECT_EQ("0 " + std::to_string(std::string::npos) + " -1 0", seen);
}

}  // namespace
}  // namespace subtitle
}  // namespace librh
