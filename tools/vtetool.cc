// Operator's tool for looking at what the engine sees.
//
//   vtetool probe <file>    the metadata document of a media file
//   vtetool session <file> <type> <profile file> <profile> [device]
//                           creates a stream session and shows what it holds
//
// Each command is one row of kCommands: a name, its arguments and a function.
// Exit status: 0 on success, 1 when the command failed, 2 on bad usage.
extern "C" {
#include <libavutil/log.h>
}

#include <json/json.h>

#include <algorithm>
#include <exception>
#include <filesystem>
#include <iostream>
#include <ostream>
#include <string>
#include <vector>

#include "metadata/video_metadata.h"
#include "vte/liborvovte.h"
#include "vte/utils/vteutils.h"

namespace {

constexpr int kFailed = 1;
constexpr int kUsage = 2;

using Arguments = std::vector<std::string>;

struct Command {
  const char* name;
  const char* arguments;  // for the usage text
  const char* summary;
  size_t minArguments;
  size_t maxArguments;
  int (*run)(const Arguments& arguments);
};

void PrintJson(const Json::Value& value) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "  ";
  std::cout << Json::writeString(builder, value) << std::endl;
}

int Probe(const Arguments& arguments) {
  const std::string& path = arguments[0];
  if (!LibOrvoVTE::VerifyFileExist(path, 0)) {
    std::cerr << "vtetool: probe: " << path << ": no such file" << std::endl;
    return kFailed;
  }
  Json::Value document(Json::objectValue);
  if (!LibOrvoVTE::VideoMetaData::ReadMetaDataFromFFMPEG(path, document)) {
    std::cerr << "vtetool: probe: " << path
              << ": not a regular file, or not media that libavformat can analyse" << std::endl;
    return kFailed;
  }
  PrintJson(document);
  return 0;
}

// A view on a session by its id, for the paths in it.
class SessionView : public LibOrvoVTE::VTEStream {
 public:
  SessionView(const std::string& id, const std::string& type) : VTEStream(id, type) {}
};

void ListSession(const std::string& dir) {
  namespace fs = std::filesystem;
  std::error_code error;
  std::cout << "session directory: " << dir;
  if (fs::is_symlink(dir, error)) std::cout << " -> " << fs::read_symlink(dir, error).string();
  std::cout << "\n";
  std::vector<fs::directory_entry> entries;
  for (const auto& entry : fs::directory_iterator(dir, error)) entries.push_back(entry);
  std::sort(entries.begin(), entries.end());
  for (const auto& entry : entries) {
    const auto size = entry.is_regular_file(error) ? entry.file_size(error) : 0;
    std::cout << "  " << entry.path().filename().string() << "  " << size << " bytes\n";
  }
}

int Session(const Arguments& arguments) {
  const std::string& path = arguments[0];
  const std::string& type = arguments[1];
  const std::string device = arguments.size() > 4 ? arguments[4] : "";
  const std::string id = LibOrvoVTE::VTEStream::VTE_Init(
      path, type, Json::Value(Json::objectValue), arguments[2], arguments[3], device, 0);
  if (id == LibOrvoVTE::kTransSpaceNotEnough) {
    std::cerr << "vtetool: session: no data volume has room for a " << type << " session ("
              << id << ")" << std::endl;
    return kFailed;
  }
  if (id.empty()) {
    std::cerr << "vtetool: session: could not create a " << type << " session for " << path
              << " with profile " << arguments[3] << " of " << arguments[2]
              << " (the system log says why)" << std::endl;
    return kFailed;
  }
  std::cout << "stream id: " << id << "\n";
  ListSession(SessionView(id, type).GetVTEFileFullPath(""));
  return 0;
}

constexpr Command kCommands[] = {
    {"probe", "<file>", "print the metadata document of a media file", 1, 1, Probe},
    {"session", "<file> <type> <profile file> <profile> [device]",
     "create a stream session and list its directory", 4, 5, Session},
};

void PrintUsage(std::ostream& out) {
  out << "usage: vtetool <command> [arguments]\n\ncommands:\n";
  for (const Command& command : kCommands) {
    std::string synopsis = std::string(command.name) + " " + command.arguments;
    out << "  " << synopsis << "\n      " << command.summary << "\n";
  }
}

int Usage() {
  PrintUsage(std::cerr);
  return kUsage;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) return Usage();
  const std::string name = argv[1];
  if (name == "help" || name == "-h" || name == "--help") {
    PrintUsage(std::cout);
    return 0;
  }
  const Arguments arguments(argv + 2, argv + argc);
  for (const Command& command : kCommands) {
    if (name != command.name) continue;
    if (arguments.size() < command.minArguments || arguments.size() > command.maxArguments) {
      return Usage();
    }
    // libavformat's own complaints about a bad file would bury the one line
    // that says what failed.
    av_log_set_level(AV_LOG_QUIET);
    try {
      return command.run(arguments);
    } catch (const std::exception& error) {
      std::cerr << "vtetool: " << name << ": " << error.what() << std::endl;
      return kFailed;
    }
  }
  std::cerr << "vtetool: unknown command '" << name << "'" << std::endl;
  return Usage();
}
