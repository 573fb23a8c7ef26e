#include "metadata/vtemetadata.h"

#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>

#include "tests/support/machine_root.h"
#include "tests/support/test_media.h"

namespace LibOrvoVTE {
namespace {

namespace fs = std::filesystem;

class SessionMetaDataTest : public orvotest::MachineRootTest {
 protected:
  void SetUp() override {
    MachineRootTest::SetUp();
    profiles_ = Root().At("/profiles.json");
    std::ofstream(profiles_) << "{\"hd\": \"-vcodec libx264 -s hd720\", \"n\": 7}";
    sessionDir_ = Root().At("/tmp/Reelhall/HTTP/s1");
    fs::create_directories(sessionDir_);
  }
  std::string profiles_;
  std::string sessionDir_;
};

TEST_F(SessionMetaDataTest, ProfileIsCopiedAsText) {
  struct Case {
    std::string file, name;
    bool ok;
    std::string value;
  } cases[] = {
      {profiles_, "hd", true, "-vcodec libx264 -s hd720"},
      {profiles_, "n", true, "7"},  // a number is kept as its text
      {profiles_, "absent", false, ""},
      {profiles_, "", false, ""},
      {"", "hd", false, ""},
      {Root().At("/missing.json"), "hd", false, ""},
  };
  for (const auto& c : cases) {
    Json::Value doc(Json::objectValue);
    EXPECT_EQ(c.ok, VTEMetaData::ReadTransProfile(c.file, c.name, doc)) << c.file << " " << c.name;
    if (c.ok) {
      EXPECT_EQ(c.name, doc["profile_key"].asString());
      EXPECT_EQ(c.value, doc["profile_value"].asString());
    } else {
      EXPECT_TRUE(doc.empty()) << c.name;
    }
  }
}

TEST_F(SessionMetaDataTest, UnusableSessionsDoNotLoad) {
  // No type: nothing is read at all, even with a file where it would be.
  VTEMetaData untyped("s1", "");
  EXPECT_FALSE(untyped.LoadMetaData());

  VTEMetaData missing("s1", "HTTP");
  EXPECT_FALSE(missing.LoadMetaData());
  EXPECT_EQ("", missing.GetProfileValue());

  std::ofstream(sessionDir_ + "/video_metadata") << "{\"profile_value\": \"x\", ";
  VTEMetaData corrupt("s1", "HTTP");
  EXPECT_FALSE(corrupt.LoadMetaData());
  EXPECT_EQ("", corrupt.GetProfileValue());
}

TEST_F(SessionMetaDataTest, UnprobeableFileWritesNoSession) {
  const std::string text = orvotest::TestMedia(orvotest::Media::kNotMedia);
  EXPECT_FALSE(VTEMetaData::ParserMetaData(text, "s1", "HTTP", profiles_, "hd", "tv"));
  EXPECT_FALSE(fs::exists(sessionDir_ + "/video_metadata"));
}

}  // namespace
}  // namespace LibOrvoVTE
