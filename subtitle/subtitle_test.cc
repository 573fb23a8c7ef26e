#include "subtitle/subtitle.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>

#include "tests/support/child.h"
#include "tests/support/machine_root.h"

namespace librh {
namespace subtitle {
namespace {

// Languages and names are seen through the subtitle search and playlists.
TEST(PathInfo, TakesNoExtensionFromADirectoryName) {
  const Json::Value info = PathInfo("/v/a.b/Movie");
  EXPECT_EQ("Movie||", info["filename"].asString() + "|" + info["extension"].asString() + "|" +
                           info["language"].asString());
}

// A user without rights is refused the switch to root rather than
// searching with its own.
TEST(GetExternalSubtitleTest, FindsTheVideosSubtitlesPatternByPattern) {
  orvotest::MachineRoot root;
  const std::string d = root.Path();
  for (const char* name : {"Movie.smi", "Movie.fre.SaMi", "Movie.chi.ass", "Movie.ssa", "Movie.srt",
                           "Movie.eng.srt", "Movie.SRT", "Movie2.srt", "Movie.txt", "Movie.locked.srt"}) {
    root.WriteFile("/" + std::string(name), "1\n00:00:00,000 --> 00:00:01,000\nHello\n");
  }
  chmod((d + "/Movie.locked.srt").c_str(), 0);
  Json::Value out(Json::arrayValue), expected(Json::arrayValue);
  out.append("kept");
  expected.append("kept");
  ASSERT_EQ(0, GetExternalSubtitle(d + "/Movie.mkv", out));
  for (const char* name : {"Movie.SRT", "Movie.eng.srt", "Movie.locked.srt", "Movie.srt", "Movie.ssa",
                           "Movie.chi.ass", "Movie.smi", "Movie.fre.SaMi"}) {
    expected.append(d + "/" + name);
  }
  EXPECT_EQ(expected, out);
  EXPECT_EQ(-1, GetExternalSubtitle("", out));
  // Its own search skips the unreadable file: 7 found.
  EXPECT_EQ("0 7 -1 0", orvotest::TextFromChild([&] {
              if (!orvotest::DropToUnprivilegedUser()) return std::string("could not drop rights");
              Json::Value own(Json::arrayValue), asRoot(Json::arrayValue);
              const int ownResult = GetExternalSubtitleImp(d + "/Movie.mkv", own);
              const int rootResult = GetExternalSubtitle(d + "/Movie.mkv", asRoot);
              return std::to_string(ownResult) + " " + std::to_string(own.size()) + " " +
                     std::to_string(rootResult) + " " + std::to_string(asRoot.size());
            }));
}

}  // namespace
}  // namespace subtitle
}  // namespace librh
