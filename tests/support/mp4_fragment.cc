#include "tests/support/mp4_fragment.h"

#include <algorithm>

#include "toolkit/files.h"

namespace orvotest {
namespace {

unsigned long long BigEndian(const std::string& bytes, size_t at, int size) {
  unsigned long long value = 0;
  for (int i = 0; i < size && at + i < bytes.size(); ++i) {
    value = value << 8 | static_cast<unsigned char>(bytes[at + i]);
  }
  return value;
}

// Calls `visit(type, payload, end)` for each box in [begin, end); whether
// the boxes fill it exactly.
template <typename Visit>
bool ForEachBox(const std::string& bytes, size_t begin, size_t end, Visit visit) {
  while (begin + 8 <= end) {
    const size_t size = BigEndian(bytes, begin, 4);
    if (size < 8 || begin + size > end) return false;
    visit(bytes.substr(begin + 4, 4), begin + 8, begin + size);
    begin += size;
  }
  return begin == end;
}

}  // namespace

std::string Mp4Fragment::AnnexB() const {
  std::string out;
  for (const std::string& sample : samples) {
    for (size_t at = 0; at + 4 <= sample.size();) {
      const size_t size = BigEndian(sample, at, 4);
      out += std::string("\0\0\0\1", 4) + sample.substr(at + 4, size);
      at += 4 + size;
    }
  }
  return out;
}

Mp4Fragment ReadMp4Fragment(const std::string& path) {
  const std::string bytes = toolkit::ReadWholeFile(path);
  Mp4Fragment fragment;
  bool whole = bytes.size() >= 8 && bytes.compare(4, 4, "moof") == 0;
  size_t moof = 0;
  whole &= ForEachBox(bytes, 0, bytes.size(), [&](const std::string& type, size_t at, size_t end) {
    if (type != "moof") return;
    moof = at - 8;
    whole &= ForEachBox(bytes, at, end, [&](const std::string& type, size_t at, size_t end) {
      if (type != "traf") return;
      whole &= ForEachBox(bytes, at, end, [&](const std::string& type, size_t at, size_t) {
        const unsigned flags = BigEndian(bytes, at, 4) & 0xffffff;
        if (type == "uuid" && BigEndian(bytes, at, 4) == 0x6d1d9b05) {
          const bool wide = bytes[at + 16] == 1;
          fragment.time = static_cast<long long>(BigEndian(bytes, at + 20, wide ? 8 : 4));
        } else if (type == "trun") {
          size_t field = at + 4;
          const auto take = [&](bool present) {
            const unsigned long long value = present ? BigEndian(bytes, field, 4) : 0;
            field += present ? 4 : 0;
            return value;
          };
          const unsigned long long count = take(true);
          size_t data = moof + take(flags & 1);
          take(flags & 4);  // the first sample's flags
          for (unsigned long long i = 0; i < count; ++i) {
            take(flags & 0x100);  // duration
            const size_t size = take(flags & 0x200);
            take(flags & 0x400);  // flags
            take(flags & 0x800);  // composition offset
            whole &= data + size <= bytes.size();
            fragment.samples.push_back(bytes.substr(std::min(data, bytes.size()), size));
            data += size;
          }
        }
      });
    });
  });
  fragment.complete = whole && !fragment.samples.empty();
  return fragment;
}

std::string BytesFromHex(const std::string& hex) {
  std::string bytes;
  for (size_t at = 0; at + 1 < hex.size(); at += 2) {
    bytes.push_back(static_cast<char>(std::stoi(hex.substr(at, 2), nullptr, 16)));
  }
  return bytes;
}

std::string Attribute(const std::string& xml, const std::string& name, size_t from) {
  const size_t start = xml.find(" " + name + "=\"", from);
  if (start == std::string::npos) return "";
  const size_t value = start + name.size() + 3;
  return xml.substr(value, xml.find('"', value) - value);
}

}  // namespace orvotest
