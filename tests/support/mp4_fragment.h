// Smooth Streaming fragment files (a moof box, then an mdat box) read the
// way a client reads them: ISO/IEC 14496-12 trun, and the Smooth
// Streaming tfxd box.
#pragma once

#include <string>
#include <vector>

namespace orvotest {

struct Mp4Fragment {
  // A moof box first, boxes that fill the file exactly, and samples that all
  // lie inside it.
  bool complete = false;
  long long time = -1;  // the tfxd box's absolute time
  std::vector<std::string> samples;

  // The samples' length-prefixed NAL units behind Annex B start codes, as a
  // decoder takes them.
  std::string AnnexB() const;
};

// The fragment in the file `path`.
Mp4Fragment ReadMp4Fragment(const std::string& path);

// "0a1B" as the bytes 0x0a 0x1b.
std::string BytesFromHex(const std::string& hex);

// The value of the first `name="..."` attribute at or after `from` in a
// manifest's XML; "" when there is none.
std::string Attribute(const std::string& xml, const std::string& name, size_t from = 0);

}  // namespace orvotest
