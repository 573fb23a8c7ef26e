// The existence test and the probe look at files with root rights, because
// media may belong to any user. A process that has given root up for good
// must get "no" from both, and the refused switch must reach the auth log.
#include <gtest/gtest.h>
#include <syslog.h>
#include <unistd.h>

#include <string>

#include "metadata/video_metadata.h"
#include "tests/support/child.h"
#include "tests/support/log_capture.h"
#include "tests/support/test_media.h"
#include "vte/utils/vteutils.h"

namespace {

constexpr char kRefused[] = " ERROR: IF_RUN_AS(0, 0)";

// How many refusals tagged `tag` were logged at LOG_AUTH|LOG_ERR.
int Refusals(const orvotest::LogCapture& log, const std::string& tag) {
  int count = 0;
  for (const orvotest::LoggedLine& line : log.Lines()) {
    const std::string& text = line.text;
    const bool tagged = text.compare(0, tag.size() + 1, tag + ":") == 0;
    const bool refused = text.size() > sizeof(kRefused) - 1 &&
                         text.compare(text.size() - (sizeof(kRefused) - 1), std::string::npos,
                                      kRefused) == 0;
    if (line.priority == (LOG_AUTH | LOG_ERR) && tagged && refused) ++count;
  }
  return count;
}

TEST(Privilege, ProcessThatDroppedRootForGoodSeesNothing) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to drop it";
  // Generated before dropping: the cache may not be writable afterwards.
  const std::string clip = orvotest::TestMedia(orvotest::Media::kH264AacMp4);
  ASSERT_FALSE(clip.empty());
  ASSERT_EQ(0, access(clip.c_str(), R_OK)) << "the clip must be readable without root";

  enum : int {
    kOk = 0,
    kCannotDrop,
    kExistenceSeen,
    kExistenceNotLogged,
    kLoaded,
    kLoadNotLogged,
    kProbed,
    kProbeNotLogged,
  };
  const int status = orvotest::RunInChild([&] {
    if (!orvotest::DropToUnprivilegedUser()) return kCannotDrop;
    orvotest::LogCapture log;
    if (LibOrvoVTE::VerifyFileExist(clip, 0)) return kExistenceSeen;
    if (Refusals(log, "vteutils") != 1) return kExistenceNotLogged;

    LibOrvoVTE::VideoMetaData meta;
    if (meta.LoadFile(clip)) return kLoaded;
    if (Refusals(log, "vteutils") != 2) return kLoadNotLogged;

    // The file itself is world-readable, yet the probe must not run
    // unprivileged either.
    Json::Value doc(Json::objectValue);
    if (LibOrvoVTE::VideoMetaData::ReadMetaDataFromFFMPEG(clip, doc)) return kProbed;
    if (Refusals(log, "run_as") != 1 ||
        !log.Has(LOG_ERR, "video_metadata:386 ParserMetaDataFromFFMPEG fail.")) {
      return kProbeNotLogged;
    }
    return kOk;
  });
  EXPECT_EQ(kOk, status) << "1 cannot drop, 2 existence seen, 3 not logged, 4 loaded, "
                            "5 not logged, 6 probed, 7 not logged, -1 crashed or hung";
}

}  // namespace
