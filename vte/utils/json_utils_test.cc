#include "vte/utils/json_utils.h"

#include <gtest/gtest.h>
#include <syslog.h>

#include <string>

#include "tests/support/log_capture.h"
#include "tests/support/machine_root.h"
#include "toolkit/files.h"

namespace LibReelhall {
namespace {

class JsonUtilsTest : public orvotest::MachineRootTest {
 protected:
  std::string Scratch(const std::string& name) { return Root().At("/tmp/" + name); }
};

TEST_F(JsonUtilsTest, WritesOneLineThatReadsBackEqual) {
  Json::Value value;
  value["path"] = "/volume1/video/a \"quoted\" name.mkv";
  value["duration"] = 5400;
  value["rate"] = 2.5;
  value["track_info"]["audio"].append(Json::Value(Json::objectValue));
  value["track_info"]["audio"][0]["id"] = "1";
  value["flags"].append(true);
  value["flags"].append(Json::Value());
  Root().WriteFile("/tmp/doc.json", std::string(200, ' ') + "{\"stale\": 1}");
  const std::string path = Scratch("doc.json");

  ASSERT_TRUE(WriteJsonToFile(path, value));
  EXPECT_EQ(
      "{\"duration\":5400,\"flags\":[true,null],\"path\":\"/volume1/video/a \\\"quoted\\\" "
      "name.mkv\",\"rate\":2.5,\"track_info\":{\"audio\":[{\"id\":\"1\"}]}}\n",
      toolkit::ReadWholeFile(path));
  Json::Value back;
  ASSERT_TRUE(ReadJsonFromFile(path, back));
  EXPECT_EQ(value, back);
}

TEST_F(JsonUtilsTest, ReadFailsSilentlyForMissingOrBrokenFiles) {
  struct Case {
    const char* name;
    bool present;
    std::string text;
  };
  const Case cases[] = {
      {"absent.json", false, ""},
      {"empty.json", true, ""},
      {"truncated.json", true, "{\"a\": [1, 2"},
      {"garbage.json", true, "not json"},
      // The parser throws past its nesting limit; that must not escape.
      {"deep.json", true, std::string(5000, '[')},
  };
  for (const Case& c : cases) {
    if (c.present) Root().WriteFile(std::string("/tmp/") + c.name, c.text);
    orvotest::LogCapture logs;
    Json::Value out;
    EXPECT_FALSE(ReadJsonFromFile(Scratch(c.name), out)) << c.name;
    EXPECT_TRUE(logs.Lines().empty()) << c.name << ": " << logs.Dump();
  }
  Json::Value out;
  EXPECT_FALSE(ReadJsonFromFile("", out));
}

TEST_F(JsonUtilsTest, WriteFailuresAreLoggedWithThePath) {
  Json::Value value;
  value["a"] = 1;
  {
    orvotest::LogCapture logs;
    EXPECT_FALSE(WriteJsonToFile("", value));
    EXPECT_TRUE(logs.Has(LOG_ERR, "json_utils:55 Bad parameter")) << logs.Dump();
  }
  // A missing directory fails at open; a full device only when the data is
  // flushed, which an unchecked close would miss.
  for (const std::string& path : {Scratch("no-such-dir/doc.json"), std::string("/dev/full")}) {
    orvotest::LogCapture logs;
    EXPECT_FALSE(WriteJsonToFile(path, value)) << path;
    EXPECT_TRUE(logs.Has(LOG_ERR, "json_utils:63 failed to write json file[" + path + "]"))
        << logs.Dump();
  }
}

}  // namespace
}  // namespace LibReelhall
