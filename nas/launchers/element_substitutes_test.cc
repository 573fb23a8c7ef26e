#include "nas/launchers/element_substitutes.h"

#include <gtest/gtest.h>

#include <map>
#include <set>

#include "tests/support/launchers.h"

namespace launchers {
namespace {

using orvotest::JoinWords;
using orvotest::SplitWords;
// Elements and their properties ("name" all have).
using Machine = std::map<std::string, std::set<std::string>>;

// The stock plugins: no VA-API, no faac, an mpegtsmux without shift-pts.
const Machine kStock = {
    {"filesrc", {"location"}}, {"qtdemux", {}}, {"queue", {"max-size-time"}}, {"h264parse", {}},
    {"decodebin", {}}, {"videoconvertscale", {"method"}}, {"videoflip", {"method"}},
    {"tsdemux", {}},
    {"x264enc", {"bitrate", "key-int-max", "bframes", "speed-preset", "tune"}},
    {"mpegtsmux", {"alignment"}}, {"fdsink", {"fd"}}, {"aacparse", {}}, {"audioconvert", {}},
    {"avenc_aac", {"bitrate"}}};

bool Plan(const std::string& line, const Machine& machine, PipelinePlan* plan,
          std::string* error) {
  return PlanPipeline(
      SplitWords(line), [&](const std::string& element) { return machine.count(element) > 0; },
      [&](const std::string& element, const std::string& property) {
        return property == "name" || (machine.count(element) && machine.at(element).count(property));
      },
      plan, error);
}

// A Braswell HLS pipeline from the sample profile, a Chromecast HTTP one with
// the fixed faac chain and shift-pts, and elements this machine does have.
TEST(PlanPipeline, ReplacesMissingNasElementsAndLiftsShiftPts) {
  Machine nasMuxer = kStock;
  nasMuxer["faac"] = {"rate-control"};
  nasMuxer["mpegtsmux"] = {"shift-pts"};
  struct Case {
    const char* library;
    const Machine& machine;
    const char* stock;
    std::vector<TimestampShift> shifts;
  };
  const Case cases[] = {
      {"filesrc location=/v/a.b.mp4 ! qtdemux name=demux ! queue ! h264parse ! queue ! "
       "vaapidecode ! vaapipostproc width=852 height=480 vertical-video=true ! videoflip "
       "method=1 ! vaapih264enc rate-control=cbr bitrate=1024 tune=high-compression ! "
       "h264parse ! queue max-size-time=0 ! mpegtsmux name=mux ! queue ! fdsink fd=5",
       kStock,
       "filesrc location=/v/a.b.mp4 ! qtdemux name=demux ! queue ! h264parse ! queue ! "
       "decodebin ! videoconvertscale ! video/x-raw,format=NV12,width=852,height=480 ! videoflip "
       "method=1 ! x264enc bitrate=1024 key-int-max=30 bframes=0 speed-preset=veryfast ! "
       "h264parse ! queue max-size-time=0 ! mpegtsmux name=mux ! queue ! fdsink fd=5",
       {}},
      {"vaapih264enc keyframe-period=50 bitrate=200 ! mpegtsmux shift-pts=0120 name=mux ! "
       "fdsink fd=3 demux.audio_0 ! queue ! audioconvert ! audio/x-raw,channels=2 ! faac "
       "rate-control=ABR bitrate=64000 ! queue ! aacparse ! mux.",
       kStock,
       "x264enc key-int-max=50 bitrate=200 bframes=0 speed-preset=veryfast ! mpegtsmux name=mux ! "
       "fdsink fd=3 demux.audio_0 ! queue ! audioconvert ! audio/x-raw,channels=2 ! avenc_aac "
       "bitrate=64000 ! queue ! aacparse ! mux.",
       {{"mux", 120}}},
      // The stock tsdemux names its audio pads after the program generation
      // too; pads of other elements keep their names.
      {"filesrc location=/v/a.ts ! tsdemux name=demux ! queue ! fdsink fd=3 demux.audio_0101 "
       "! queue ! mux. demux.audio_0_0102 ! queue ! mux. other.audio_0101 ! mux.",
       kStock,
       "filesrc location=/v/a.ts ! tsdemux name=demux ! queue ! fdsink fd=3 demux.audio_0_0101 "
       "! queue ! mux. demux.audio_0_0102 ! queue ! mux. other.audio_0101 ! mux.",
       {}},
      // An unnamed muxer gets a name to find it by.
      {"mpegtsmux shift-pts=7 alignment=7 ! fdsink fd=3", kStock,
       "mpegtsmux alignment=7 name=shifted0 ! fdsink fd=3", {{"shifted0", 7}}},
      {"faac rate-control=ABR ! mpegtsmux shift-pts=30 name=mux ! fdsink", nasMuxer,
       "faac rate-control=ABR ! mpegtsmux shift-pts=30 name=mux ! fdsink", {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.library);
    PipelinePlan plan;
    std::string error;
    ASSERT_TRUE(Plan(c.library, c.machine, &plan, &error)) << error;
    EXPECT_EQ(c.stock, JoinWords(plan.words));
    ASSERT_EQ(c.shifts.size(), plan.shifts.size());
    for (size_t i = 0; i < c.shifts.size(); ++i) {
      EXPECT_EQ(c.shifts[i].element, plan.shifts[i].element);
      EXPECT_EQ(c.shifts[i].seconds, plan.shifts[i].seconds);
    }
  }
  PipelinePlan plan;
  std::string error;
  EXPECT_FALSE(Plan("mpegtsmux shift-pts=-3", kStock, &plan, &error));
  EXPECT_NE(std::string::npos, error.find("whole seconds")) << error;
}

}  // namespace
}  // namespace launchers
