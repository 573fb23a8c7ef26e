// Operator's tool for looking at what the engine sees.
//
//   vtetool probe <file>    the metadata document of a media file
//
// Each command is one row of kCommands: a name, its arguments and a function.
// Exit status: 0 on success, 1 when the command failed, 2 on bad usage.
extern "C" {
#include <libavutil/log.h>
}

#include <json/json.h>

#include <exception>
#include <iostream>
#include <ostream>
#include <string>
#include <vector>

#include "metadata/video_metadata.h"
#include "vte/utils/vteutils.h"

namespace {

constexpr int kFailed = 1;
constexpr int kUsage = 2;

using Arguments = std::vector<std::string>;

struct Command {
  const char* name;
  const char* arguments;  // for the usage text
  const char* summary;
  size_t argumentCount;
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

constexpr Command kCommands[] = {
    {"probe", "<file>", "print the metadata document of a media file", 1, Probe},
};

void PrintUsage(std::ostream& out) {
  out << "usage: vtetool <command> [arguments]\n\ncommands:\n";
  for (const Command& command : kCommands) {
    std::string synopsis = std::string(command.name) + " " + command.arguments;
    synopsis.resize(24, ' ');
    out << "  " << synopsis << command.summary << "\n";
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
    if (arguments.size() != command.argumentCount) return Usage();
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
