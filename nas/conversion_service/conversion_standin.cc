// Plays the NAS's offline conversion service inside a machine root, for tests
// and the demo: it holds a transcoder in the load registry, as the service
// does while it converts, until a stream asks it to yield.
//
//   conversion-standin [--hardware] [--yield-after SECONDS]
//
// It registers {"PID": <own pid>, "hardware_transcode": <--hardware>,
// "offline_conversion": true}, then writes its pid file (so the pid file's
// presence means the entry is in place) and waits. SIGUSR1, the service's
// request to yield, makes it remove its pid file and drop its entries (after
// SECONDS, when given), and exit 0; SIGTERM or SIGINT do the same at once.
//
// Exit status: 0 after yielding, 1 when it could not register or write its
// pid file, 2 on bad usage or without ORVOVTE_MACHINE_ROOT.
#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "platform/machine_root.h"
#include "platform/olibc.h"
#include "vte/utils/trans_loading.h"

namespace {

constexpr int kFailed = 1;
constexpr int kUsage = 2;
constexpr char kProgram[] = "conversion-standin";

struct Options {
  bool hardware = false;
  long yieldAfterSeconds = 0;
};

int Usage() {
  fprintf(stderr,
          "usage: %s [--hardware] [--yield-after SECONDS]\n"
          "\n"
          "Plays the offline conversion service under $%s: registers a running\n"
          "conversion in the load registry, writes the service's pid file and waits.\n"
          "On SIGUSR1 it yields (after SECONDS, default 0): removes its pid file,\n"
          "drops its registry entries and exits 0. SIGTERM and SIGINT yield at once.\n"
          "\n"
          "  --hardware            the conversion uses the hardware transcoder\n"
          "  --yield-after SECONDS delay between SIGUSR1 and yielding\n",
          kProgram, librh::machine::kRootVariable);
  return kUsage;
}

bool ParseSeconds(const char* text, long& seconds) {
  char* end = nullptr;
  errno = 0;
  const long value = strtol(text, &end, 10);
  if (errno != 0 || end == text || *end != '\0' || value < 0) return false;
  seconds = value;
  return true;
}

bool ParseOptions(int argc, char** argv, Options& options) {
  for (int i = 1; i < argc; ++i) {
    const std::string word = argv[i];
    if (word == "--hardware") {
      options.hardware = true;
    } else if (word == "--yield-after" && i + 1 < argc) {
      if (!ParseSeconds(argv[++i], options.yieldAfterSeconds)) return false;
    } else {
      return false;
    }
  }
  return true;
}

bool Register(const Options& options) {
  LibReelhall::TransLoading registry;
  return registry.IsLockSucess() && registry.SaveTransPID(getpid(), options.hardware, true);
}

void Unregister() {
  LibReelhall::TransLoading registry;
  registry.RemoveTransPIDLock(getpid());
}

// Readers must never see a half-written pid, so it appears by rename.
bool WritePidFile(const std::string& path) {
  const std::string temp = path + ".tmp";
  FILE* file = fopen(temp.c_str(), "we");
  if (file == nullptr) return false;
  const bool written = fprintf(file, "%d\n", static_cast<int>(getpid())) > 0;
  if (fclose(file) != 0 || !written || rename(temp.c_str(), path.c_str()) != 0) {
    unlink(temp.c_str());
    return false;
  }
  return true;
}

// A newer service may have taken the pid file over meanwhile.
void RemovePidFile(const std::string& path) {
  if (OLIBCReadPidFile(path.c_str()) == getpid()) unlink(path.c_str());
}

int WaitForSignal(const sigset_t& signals) {
  for (;;) {
    const int received = sigwaitinfo(&signals, nullptr);
    if (received > 0) return received;
    if (errno != EINTR) return SIGTERM;
  }
}

// The delay a slow service takes to let go; a stop request cuts it short.
void DelayYield(long seconds) {
  if (seconds <= 0) return;
  sigset_t stop;
  sigemptyset(&stop);
  sigaddset(&stop, SIGTERM);
  sigaddset(&stop, SIGINT);
  struct timespec remaining = {seconds, 0};
  struct timespec started;
  clock_gettime(CLOCK_MONOTONIC, &started);
  for (;;) {
    if (sigtimedwait(&stop, nullptr, &remaining) > 0 || errno != EINTR) return;
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    const long elapsed = now.tv_sec - started.tv_sec;
    if (elapsed >= seconds) return;
    remaining = {seconds - elapsed, 0};
  }
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  if (!ParseOptions(argc, argv, options)) return Usage();
  // On the real machine the real service owns the pid file and the registry.
  if (librh::machine::Root().empty()) {
    fprintf(stderr, "%s: %s is not set; refusing to touch the real machine's files\n",
            kProgram, librh::machine::kRootVariable);
    return kUsage;
  }

  // Blocked before anyone can learn the pid, so an early request stays
  // pending instead of killing the process.
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGUSR1);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGINT);
  sigprocmask(SIG_BLOCK, &signals, nullptr);

  const std::string pidFile = librh::machine::Resolve(librh::machine::kConversionPidFile);
  if (!Register(options)) {
    fprintf(stderr, "%s: cannot register in the load registry\n", kProgram);
    return kFailed;
  }
  if (!WritePidFile(pidFile)) {
    fprintf(stderr, "%s: cannot write %s: %s\n", kProgram, pidFile.c_str(), strerror(errno));
    Unregister();
    return kFailed;
  }
  printf("%s: pid %d converting (%s), waiting for SIGUSR1\n", kProgram,
         static_cast<int>(getpid()), options.hardware ? "hardware" : "software");
  fflush(stdout);

  if (WaitForSignal(signals) == SIGUSR1) DelayYield(options.yieldAfterSeconds);
  // The pid file goes first: a stream that sees the entries gone takes the
  // service for gone, and must not find its pid still there.
  RemovePidFile(pidFile);
  Unregister();
  return 0;
}
