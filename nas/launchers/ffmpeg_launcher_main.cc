// Stands where the library expects the NAS's own ffmpeg build and runs the
// stock ffmpeg with an equivalent command line (option_table.cc).
//
//   ffmpeg-launcher <the library's ffmpeg arguments>
//
// Progressive, WebM and HLS command lines need nothing once translated: the
// launcher replaces itself with ffmpeg, so the pid the library registered is
// ffmpeg's. Smooth Streaming needs its fragments renamed as they appear: the
// launcher then stays, with ffmpeg as its only child (supervisor.h).
//
// Exit status: ffmpeg's own; 2 when the command line cannot be translated
// faithfully; 127 when the stock ffmpeg cannot be started.
#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "nas/launchers/ffmpeg_translation.h"
#include "nas/launchers/fragment_renamer.h"
#include "nas/launchers/stock_build.h"
#include "nas/launchers/supervisor.h"

namespace {

constexpr char kProgram[] = "ffmpeg-launcher";
constexpr int kUntranslatable = 2;
constexpr int kCannotRun = 127;
// Fragments last seconds; a tenth of a second keeps the rename far ahead of
// any client's request.
constexpr int kRenameTickMs = 100;

int Fail(const std::string& message, int status) {
  fprintf(stderr, "%s: %s\n", kProgram, message.c_str());
  return status;
}

int RunFragments(const launchers::FFmpegPlan& plan) {
  launchers::FragmentRenamer renamer(plan.fragments);
  std::string error;
  if (!renamer.Prepare(&error)) return Fail(error, kCannotRun);
  const int status =
      launchers::Supervise(plan.argv, [&renamer] { renamer.MoveFinished(); }, kRenameTickMs, &error);
  renamer.RemoveStaging();
  if (status < 0) return Fail(error, kCannotRun);
  launchers::ExitLike(status);
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::string> words(argv, argv + argc);
  launchers::FFmpegPlan plan;
  std::string error;
  if (!launchers::PlanFFmpeg(words, ORVOVTE_STOCK_FFMPEG, launchers::StockHasEncoder,
                             launchers::InspectSource, &plan, &error)) {
    return Fail("cannot translate this command line: " + error, kUntranslatable);
  }
  if (plan.kind == launchers::OutputKind::kFragments) return RunFragments(plan);

  std::vector<char*> stock;
  for (const std::string& word : plan.argv) stock.push_back(const_cast<char*>(word.c_str()));
  stock.push_back(nullptr);
  execv(stock[0], stock.data());
  return Fail("cannot run " + plan.argv[0] + ": " + strerror(errno), kCannotRun);
}
