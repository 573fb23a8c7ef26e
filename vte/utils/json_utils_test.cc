#include "vte/utils/json_utils.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/support/machine_root.h"
#include "toolkit/files.h"

namespace LibReelhall {
namespace {

// Other processes read these files line by line, and a full device fails
// only when the data is flushed, which an unchecked close would miss.
TEST(JsonUtilsTest, WritesOneLineThatReadsBackAndFailsWhereItCannot) {
  orvotest::MachineRoot root;
  Json::Value value;
  value["path"] = "/volume1/a \"quoted\" name.mkv";
  value["rate"] = 2.5;
  value["track_info"]["audio"][0]["id"] = "1";
  value["flags"].append(true);
  value["flags"].append(Json::Value());
  root.WriteFile("/tmp/doc.json", std::string(200, ' ') + "{\"stale\": 1}");
  const std::string path = root.At("/tmp/doc.json");
  ASSERT_TRUE(WriteJsonToFile(path, value));
  EXPECT_EQ(R"({"flags":[true,null],"path":"/volume1/a \"quoted\" name.mkv","rate":2.5,)"
            R"("track_info":{"audio":[{"id":"1"}]}})" "\n",
            toolkit::ReadWholeFile(path));
  Json::Value back;
  ASSERT_TRUE(ReadJsonFromFile(path, back));
  EXPECT_EQ(value, back);
  for (const std::string& bad : {std::string(root.At("/tmp/no-such-dir/doc.json")),
                                 std::string("/dev/full"), std::string()}) {
    EXPECT_FALSE(WriteJsonToFile(bad, value)) << bad;
  }

  // The parser throws past its nesting limit; that must not escape.
  for (const std::string& text : {std::string(), std::string("{\"a\": [1, 2"),
                                  std::string(5000, '[')}) {
    root.WriteFile("/tmp/bad.json", text);
    EXPECT_FALSE(ReadJsonFromFile(root.At("/tmp/bad.json"), back)) << text.substr(0, 20);
  }
  EXPECT_FALSE(ReadJsonFromFile(root.At("/tmp/absent.json"), back));
}

}  // namespace
}  // namespace LibReelhall
