// Adapting the library's gst-launch words to a machine without the NAS's
// hardware elements or its patched mpegtsmux. Pure: the caller says which
// elements exist and which properties they have.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace launchers {

// One NAS element the stock plugins lack and the software element that
// stands in for it. Properties of the NAS element are renamed by `renames`
// ("from:to,..."), turned into a caps filter after the stand-in when named in
// `caps` ("video/x-raw:width,height": the stand-in scales to what the NAS
// element was told), dropped when listed in `drops` ("a,b") or when the
// stand-in has no property of that name, and kept otherwise. `defaults`
// ("key=value ...") are what the NAS element does unasked, given to the
// stand-in unless the pipeline sets them.
struct ElementSubstitute {
  const char* missing;
  const char* standIn;
  const char* renames;
  const char* caps;
  const char* drops;
  const char* defaults;
  const char* reason;
};

// The row for a NAS element, or null.
const ElementSubstitute* FindSubstitute(const std::string& element);

// A PTS shift ("shift-pts=<seconds>" of the NAS's mpegtsmux) that the stock
// element lacks; the launcher adds the offset to the element's sink pads.
struct TimestampShift {
  std::string element;  // its "name=" in the pipeline
  long long seconds = 0;
};

struct PipelinePlan {
  std::vector<std::string> words;   // for gst_parse_launchv
  std::vector<TimestampShift> shifts;
  std::vector<std::string> notes;   // each substitution and dropped property, for stderr
};

using ElementCheck = std::function<bool(const std::string& element)>;
using PropertyCheck =
    std::function<bool(const std::string& element, const std::string& property)>;

// Rewrites `words`: missing elements with a row are replaced, and every
// "shift-pts" that its element does not know becomes a TimestampShift. False,
// with the reason in `error`, when a shift is not whole seconds.
bool PlanPipeline(const std::vector<std::string>& words, const ElementCheck& exists,
                  const PropertyCheck& hasProperty, PipelinePlan* plan, std::string* error);

}  // namespace launchers
