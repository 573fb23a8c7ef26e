#include "metadata/vtemetadata.h"

#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>

#include "tests/support/documents.h"
#include "tests/support/machine_root.h"

namespace LibOrvoVTE {
namespace {

// Sessions made whole by VTE_Init, and read back in another process, are
// in vte/liborvovte_test.cc.
TEST(SessionMetaDataTest, ProfileIsCopiedAsTextAndABrokenSessionIsNotLoaded) {
  orvotest::MachineRoot root;
  const std::string profiles = root.At("/profiles.json");
  std::ofstream(profiles) << R"({"hd": "-vcodec libx264", "n": 7, "list": [1]})";
  const struct {
    std::string file, name, copied;  // "" : refused, nothing written
  } rows[] = {
      {profiles, "hd", R"({"profile_key":"hd","profile_value":"-vcodec libx264"})"},
      {profiles, "n", R"({"profile_key":"n","profile_value":"7"})"},
      {profiles, "list", ""},
      {profiles, "absent", ""},
      {profiles, "", ""},
      {root.At("/missing.json"), "hd", ""},
  };
  for (const auto& row : rows) {
    Json::Value doc(Json::objectValue);
    EXPECT_EQ(!row.copied.empty(), VTEMetaData::ReadTransProfile(row.file, row.name, doc)) << row.name;
    EXPECT_EQ(row.copied.empty() ? "{}" : row.copied, orvotest::JsonLine(doc)) << row.name;
  }

  const std::string dir = root.At("/tmp/Reelhall/HTTP/s1");
  std::filesystem::create_directories(dir);
  std::ofstream(dir + "/video_metadata") << R"({"profile_value": "x", )";
  VTEMetaData corrupt("s1", "HTTP");
  EXPECT_FALSE(corrupt.LoadMetaData());
  EXPECT_EQ("", corrupt.GetProfileValue());
  EXPECT_FALSE(VTEMetaData("s1", "").LoadMetaData());
}

}  // namespace
}  // namespace LibOrvoVTE
