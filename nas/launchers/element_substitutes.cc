#include "nas/launchers/element_substitutes.h"

#include <map>

#include "nas/launchers/option_table.h"

namespace launchers {
namespace {

constexpr ElementSubstitute kSubstitutes[] = {
    {"vaapidecode", "decodebin", "", "", "", "",
     "Braswell's VA-API decoder, which registers nothing without a VA device; decodebin "
     "plugs the software decoder for the stream"},
    {"stvideo", "decodebin", "", "", "", "", "Monaco's hardware decoder"},
    {"vaapipostproc", "videoconvertscale", "", "video/x-raw,format=NV12:width,height", "", "",
     "Braswell's VA-API scaler; its surfaces are 8-bit 4:2:0 (NV12) whatever the source's "
     "depth and chroma, and the caps after the stand-in carry that and the size it was given"},
    {"vaapih264enc", "x264enc", "keyframe-period:key-int-max,max-bframes:bframes", "",
     "rate-control,tune", "key-int-max=30 bframes=0 speed-preset=veryfast",
     "Braswell's VA-API H.264 encoder: both count kbit/s; unless told it keys every 30 frames "
     "and makes no B-frames (which would delay the first picture behind the seek), and "
     "veryfast keeps pace the way the hardware does"},
    {"faac", "avenc_aac", "", "", "rate-control", "",
     "not packaged; libav's AAC-LC encoder takes the same bitrate in bit/s (always ABR)"},
};

// A demuxer whose stock version names its pads otherwise than the NAS's:
// a reference "<name>.<nasPrefix><rest>" to such an element becomes
// "<name>.<stockPrefix><rest>".
struct PadRename {
  const char* element;
  const char* nasPrefix;
  const char* stockPrefix;
};
// The NAS's tsdemux names audio pads after the PID alone ("audio_0101");
// the stock one puts the program generation, 0 for a file's first program,
// in front ("audio_0_0101").
constexpr PadRename kPadRenames[] = {{"tsdemux", "audio_", "audio_0_"}};

enum class WordKind { kLink, kCaps, kProperty, kReference, kElement };

// gst-launch's grammar as far as the library's pipelines use it.
WordKind Classify(const std::string& word) {
  if (word == "!") return WordKind::kLink;
  const std::string head = word.substr(0, word.find(','));
  if (head.find('/') != std::string::npos && head.find('=') == std::string::npos) {
    return WordKind::kCaps;  // "video/x-raw,framerate=24/1"
  }
  if (word.find('=') != std::string::npos) return WordKind::kProperty;
  if (word.find('.') != std::string::npos) return WordKind::kReference;  // "demux.audio_0", "mux."
  return WordKind::kElement;
}

std::vector<std::string> Split(const std::string& list, char separator) {
  std::vector<std::string> items;
  size_t begin = 0;
  while (begin < list.size()) {
    size_t end = list.find(separator, begin);
    if (end == std::string::npos) end = list.size();
    if (end > begin) items.push_back(list.substr(begin, end - begin));
    begin = end + 1;
  }
  return items;
}

bool Listed(const std::string& list, const std::string& item) {
  for (const std::string& entry : Split(list, ',')) {
    if (entry == item) return true;
  }
  return false;
}

std::string Renamed(const std::string& renames, const std::string& property) {
  for (const std::string& entry : Split(renames, ',')) {
    const size_t colon = entry.find(':');
    if (entry.compare(0, colon, property) == 0) return entry.substr(colon + 1);
  }
  return property;
}

// The properties of one element as the stand-in (or the element itself)
// gets them.
struct Translated {
  std::vector<std::string> properties;
  std::vector<std::string> capsFields;  // "width=852"
  std::string name;
  long long shift = -1;
};

bool TranslateProperty(const std::string& element, const std::string& factory,
                       const ElementSubstitute* row, const std::string& property,
                       const PropertyCheck& hasProperty, Translated* out,
                       std::vector<std::string>* notes, std::string* error) {
  const size_t equals = property.find('=');
  std::string key = property.substr(0, equals);
  const std::string value = property.substr(equals + 1);
  if (row) {
    key = Renamed(row->renames, key);
    const std::string caps = row->caps;
    if (Listed(caps.substr(caps.find(':') + 1), key)) {
      out->capsFields.push_back(key + "=" + value);
      return true;
    }
    if (Listed(row->drops, key) || !hasProperty(factory, key)) {
      notes->push_back(property + " of " + element + " dropped");
      return true;
    }
  }
  if (key == "shift-pts" && !hasProperty(factory, key)) {
    if (ParseWholeSeconds(value, &out->shift)) return true;
    *error = "shift-pts wants whole seconds, not \"" + value + "\"";
    return false;
  }
  if (key == "name") out->name = value;
  out->properties.push_back(key + "=" + value);
  return true;
}

// Appends one element and its properties to `plan`.
bool PlanElement(const std::string& element, const std::vector<std::string>& properties,
                 const ElementCheck& exists, const PropertyCheck& hasProperty,
                 PipelinePlan* plan, std::string* error) {
  const ElementSubstitute* row = exists(element) ? nullptr : FindSubstitute(element);
  const std::string factory = row ? row->standIn : element;
  if (row) plan->notes.push_back(element + " is not on this machine; " + factory + " stands in");
  Translated out;
  for (const std::string& property : properties) {
    if (!TranslateProperty(element, factory, row, property, hasProperty, &out, &plan->notes,
                           error)) {
      return false;
    }
  }
  if (row) {
    for (const std::string& preset : Split(row->defaults, ' ')) {
      const std::string key = preset.substr(0, preset.find('=') + 1);
      bool given = false;
      for (const std::string& property : out.properties) given |= property.compare(0, key.size(), key) == 0;
      if (!given) out.properties.push_back(preset);
    }
  }
  if (out.shift >= 0) {
    if (out.name.empty()) {
      out.name = "shifted" + std::to_string(plan->shifts.size());
      out.properties.push_back("name=" + out.name);
    }
    plan->shifts.push_back({out.name, out.shift});
  }
  plan->words.push_back(factory);
  plan->words.insert(plan->words.end(), out.properties.begin(), out.properties.end());
  if (!out.capsFields.empty()) {
    std::string caps = row->caps;
    caps.erase(caps.find(':'));
    for (const std::string& field : out.capsFields) caps += "," + field;
    plan->words.insert(plan->words.end(), {"!", caps});
  }
  return true;
}

// A pad reference ("demux.audio_0101") as the stock element names the pad.
std::string StockReference(const std::string& reference,
                           const std::map<std::string, std::string>& factories,
                           std::vector<std::string>* notes) {
  const size_t dot = reference.find('.');
  const auto factory = factories.find(reference.substr(0, dot));
  if (factory == factories.end()) return reference;
  const std::string pad = reference.substr(dot + 1);
  for (const PadRename& rename : kPadRenames) {
    const size_t prefix = std::string(rename.nasPrefix).size();
    if (factory->second != rename.element || pad.compare(0, prefix, rename.nasPrefix) != 0 ||
        pad.find('_', prefix) != std::string::npos) {
      continue;
    }
    const std::string stock =
        reference.substr(0, dot + 1) + rename.stockPrefix + pad.substr(prefix);
    notes->push_back(reference + " is " + stock + " here");
    return stock;
  }
  return reference;
}

}  // namespace

const ElementSubstitute* FindSubstitute(const std::string& element) {
  for (const ElementSubstitute& row : kSubstitutes) {
    if (element == row.missing) return &row;
  }
  return nullptr;
}

bool PlanPipeline(const std::vector<std::string>& words, const ElementCheck& exists,
                  const PropertyCheck& hasProperty, PipelinePlan* plan, std::string* error) {
  PipelinePlan result;
  std::map<std::string, std::string> factories;  // by the "name=" the pipeline gives
  for (size_t i = 0; i < words.size();) {
    if (Classify(words[i]) == WordKind::kReference) {
      result.words.push_back(StockReference(words[i++], factories, &result.notes));
      continue;
    }
    if (Classify(words[i]) != WordKind::kElement) {
      result.words.push_back(words[i++]);
      continue;
    }
    size_t end = i + 1;
    while (end < words.size() && Classify(words[end]) == WordKind::kProperty) ++end;
    const std::vector<std::string> properties(words.begin() + i + 1, words.begin() + end);
    for (const std::string& property : properties) {
      if (property.compare(0, 5, "name=") == 0) factories[property.substr(5)] = words[i];
    }
    if (!PlanElement(words[i], properties, exists, hasProperty, &result, error)) return false;
    i = end;
  }
  *plan = std::move(result);
  return true;
}

}  // namespace launchers
