#include "tests/support/test_media.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/syscall.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace orvotest {
namespace {

// Bumped whenever a recipe changes, so caches made by older recipes are not
// mistaken for the new files.
constexpr char kRecipeDir[] = "/r2";
constexpr int kGenerateTimeoutSeconds = 120;
// Another process may be generating the whole set while we wait.
constexpr int kLockTimeoutSeconds = 240;

struct Entry {
  Media kind;
  const char* name;
};

constexpr Entry kEntries[] = {
    {Media::kH264AacMp4, "h264_aac.mp4"},
    {Media::kTracksMkv, "tracks.mkv"},
    {Media::kAc3DataTs, "ac3_data.ts"},
    {Media::kRotatedMp4, "rotated.mp4"},
    {Media::kSar4x3Mp4, "sar4x3.mp4"},
    {Media::kNoSarMp4, "no_sar.mp4"},
    {Media::kContainerSarMkv, "container_sar.mkv"},
    {Media::kAudioOnlyMp3, "audio_only.mp3"},
    {Media::kVideoOnlyAvi, "video_only.avi"},
    {Media::kVp9VorbisWebm, "vp9_vorbis.webm"},
    {Media::kTruncatedMp4, "truncated.mp4"},
    // No extension: ".txt" alone makes libavformat try its tty demuxer.
    {Media::kNotMedia, "not_media"},
    {Media::kLongH264Mp3Mkv, "long_h264_mp3.mkv"},
    {Media::kLongLowResMp4, "long_160x120.mp4"},
    {Media::kLongH264AacMp4, "long_h264_aac.mp4"},
};

long long NowMs() {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * 1000LL + now.tv_nsec / 1000000;
}

void SleepMs(long ms) {
  struct timespec tick = {ms / 1000, (ms % 1000) * 1000000};
  nanosleep(&tick, nullptr);
}

bool Exists(const std::string& path) {
  struct stat info;
  return stat(path.c_str(), &info) == 0;
}

std::string CacheDir() { return std::string(ORVOVTE_TEST_MEDIA_CACHE) + kRecipeDir; }

bool MakeCacheDir() {
  const std::string outer = ORVOVTE_TEST_MEDIA_CACHE;
  for (const std::string& dir : {outer, CacheDir()}) {
    if (mkdir(dir.c_str(), 0755) != 0 && errno != EEXIST) return false;
  }
  return true;
}

std::string FindInPath(const std::string& program) {
  if (program.find('/') != std::string::npos) return program;
  const char* env = getenv("PATH");
  const std::string path = env ? env : "/usr/local/bin:/usr/bin:/bin";
  size_t begin = 0;
  while (begin <= path.size()) {
    size_t end = path.find(':', begin);
    if (end == std::string::npos) end = path.size();
    const std::string dir = end > begin ? path.substr(begin, end - begin) : ".";
    const std::string candidate = dir + "/" + program;
    if (access(candidate.c_str(), X_OK) == 0) return candidate;
    begin = end + 1;
  }
  return "";
}

// A pidfd turns the bounded wait into one poll, so timings taken around
// RunQuietly are not rounded up to a polling tick.
int WaitBounded(pid_t pid, int timeoutSeconds) {
  // Called directly: glibc 2.36 declares pidfd_open without C linkage for C++.
  const int pidfd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
  const long long deadline = NowMs() + timeoutSeconds * 1000LL;
  int result = -1;
  bool reaped = false;
  for (;;) {
    int status = 0;
    const pid_t done = waitpid(pid, &status, WNOHANG);
    if (done == pid) {
      result = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
      reaped = true;
      break;
    }
    if (done < 0 && errno != EINTR) {
      reaped = true;  // not our child any more; nothing to reap
      break;
    }
    const long long remaining = deadline - NowMs();
    if (remaining <= 0) break;
    if (pidfd >= 0) {
      struct pollfd ready = {pidfd, POLLIN, 0};
      poll(&ready, 1, static_cast<int>(remaining < 1000 ? remaining : 1000));
    } else {
      SleepMs(1);
    }
  }
  if (!reaped) {
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
  }
  if (pidfd >= 0) close(pidfd);
  return result;
}

bool WriteAtomically(const std::string& path, const std::string& content) {
  const std::string temp = path + ".tmp";
  FILE* file = fopen(temp.c_str(), "we");
  if (!file) return false;
  const bool written = fwrite(content.data(), 1, content.size(), file) == content.size();
  if (fclose(file) != 0 || !written) {
    unlink(temp.c_str());
    return false;
  }
  return rename(temp.c_str(), path.c_str()) == 0;
}

std::string ReadPrefix(const std::string& path, size_t bytes) {
  std::string content(bytes, '\0');
  FILE* file = fopen(path.c_str(), "re");
  if (!file) return "";
  content.resize(fread(&content[0], 1, bytes, file));
  fclose(file);
  return content;
}

class MediaCache {
 public:
  // Generates `kind` (and what it is made from) unless cached; "" on failure.
  std::string Ensure(Media kind) {
    const std::string path = PathOf(kind);
    if (Exists(path)) return path;
    return Generate(kind, path) ? path : "";
  }

  static std::string PathOf(Media kind) { return CacheDir() + "/" + MediaName(kind); }

 private:
  // ffmpeg writes to a name of the same extension (it picks the muxer from
  // it), renamed into place only once complete.
  static std::string TempOf(const std::string& path) {
    const size_t slash = path.rfind('/');
    return path.substr(0, slash + 1) + ".tmp-" + path.substr(slash + 1);
  }

  bool Generate(Media kind, const std::string& path) {
    switch (kind) {
      case Media::kTruncatedMp4: {
        const std::string source = Ensure(Media::kH264AacMp4);
        const std::string prefix = source.empty() ? "" : ReadPrefix(source, 4096);
        return prefix.size() == 4096 && WriteAtomically(path, prefix);
      }
      case Media::kNotMedia:
        return WriteAtomically(path,
                               "This is not a media file.\n"
                               "It holds a few lines of plain English text,\n"
                               "which no demuxer should accept.\n");
      default:
        break;
    }
    std::vector<std::string> args;
    if (!Recipe(kind, args)) return false;
    const std::string temp = TempOf(path);
    std::vector<std::string> argv = {"ffmpeg", "-nostdin", "-y", "-v", "error"};
    argv.insert(argv.end(), args.begin(), args.end());
    argv.push_back(temp);
    const int status = RunQuietly(argv, kGenerateTimeoutSeconds);
    if (status != 0 || rename(temp.c_str(), path.c_str()) != 0) {
      std::string command;
      for (const std::string& word : argv) command += word + " ";
      ADD_FAILURE() << "generating " << MediaName(kind) << " failed (status " << status
                    << "): " << command;
      unlink(temp.c_str());
      return false;
    }
    return true;
  }

  static void Lavfi(std::vector<std::string>& args, const std::string& graph) {
    args.insert(args.end(), {"-f", "lavfi", "-i", graph});
  }

  // The arguments between the common options and the output name.
  bool Recipe(Media kind, std::vector<std::string>& args) {
    const std::vector<std::string> h264 = {"-c:v", "libx264", "-preset", "ultrafast",
                                           "-pix_fmt", "yuv420p"};
    const std::string video25 = "testsrc=size=320x240:rate=25:duration=2";
    switch (kind) {
      case Media::kH264AacMp4:
        Lavfi(args, "testsrc=size=320x240:rate=24000/1001:duration=2");
        Lavfi(args, "sine=frequency=440:sample_rate=48000:duration=2");
        args.insert(args.end(), h264.begin(), h264.end());
        args.insert(args.end(), {"-c:a", "aac", "-b:a", "64k", "-ac", "2",
                                 "-metadata:s:a:0", "language=eng"});
        return true;
      case Media::kTracksMkv: {
        const std::string subtitles = SourceFile(
            "subtitles.srt",
            "1\n00:00:00,000 --> 00:00:01,000\nBonjour\n\n"
            "2\n00:00:01,000 --> 00:00:02,000\nAu revoir\n\n");
        if (subtitles.empty()) return false;
        Lavfi(args, video25);
        Lavfi(args, "sine=frequency=440:sample_rate=48000:duration=2");
        Lavfi(args, "sine=frequency=660:sample_rate=48000:duration=2");
        args.insert(args.end(), {"-i", subtitles, "-map", "0:v", "-map", "1:a", "-map", "2:a",
                                 "-map", "3:s"});
        args.insert(args.end(), h264.begin(), h264.end());
        args.insert(args.end(),
                    {"-c:a:0", "aac", "-ac:a:0", "2", "-c:a:1", "ac3", "-b:a:1", "96k",
                     "-c:s", "srt", "-metadata:s:a:0", "language=eng", "-metadata:s:a:1",
                     "language=jpn", "-disposition:a:0", "0", "-disposition:a:1", "default",
                     "-metadata:s:s:0", "language=fre", "-metadata:s:s:0", "title=French",
                     "-attach", subtitles, "-metadata:s:t:0", "mimetype=text/plain"});
        return true;
      }
      case Media::kAc3DataTs: {
        const std::string data = SourceFile("payload.bin", std::string(4096, '\x5a'));
        if (data.empty()) return false;
        Lavfi(args, video25);
        args.insert(args.end(), {"-f", "data", "-i", data});
        Lavfi(args, "sine=frequency=440:sample_rate=48000:duration=2");
        Lavfi(args, "sine=frequency=660:sample_rate=48000:duration=2");
        args.insert(args.end(),
                    {"-map", "0:v", "-map", "1:d", "-map", "2:a", "-map", "3:a", "-c:v",
                     "mpeg2video", "-c:d", "copy", "-c:a:0", "ac3", "-ac:a:0", "6", "-c:a:1",
                     "mp2", "-ac:a:1", "2", "-metadata:s:a:0", "language=eng",
                     "-metadata:s:a:1", "language=ger"});
        return true;
      }
      case Media::kRotatedMp4:
      case Media::kContainerSarMkv: {
        const bool rotated = kind == Media::kRotatedMp4;
        const std::string source = Ensure(rotated ? Media::kH264AacMp4 : Media::kNoSarMp4);
        if (source.empty()) return false;
        args.insert(args.end(), {"-i", source, "-c", "copy"});
        if (rotated) {
          // The 5.1 CLI stores this as a display matrix that older
          // demuxers reported as 90.
          args.insert(args.end(), {"-map", "0", "-metadata:s:v:0", "rotate=270"});
        } else {
          // On a copied stream this reaches only the container.
          args.insert(args.end(), {"-aspect", "16:9"});
        }
        return true;
      }
      case Media::kSar4x3Mp4:
      case Media::kNoSarMp4:
        Lavfi(args, "testsrc=size=320x240:rate=25:duration=1");
        // 0/1 keeps x264 from writing any aspect ratio at all.
        args.insert(args.end(), {"-vf", kind == Media::kSar4x3Mp4 ? "setsar=4/3" : "setsar=0/1"});
        args.insert(args.end(), h264.begin(), h264.end());
        return true;
      case Media::kAudioOnlyMp3:
        Lavfi(args, "sine=frequency=440:sample_rate=44100:duration=2");
        args.insert(args.end(), {"-c:a", "libmp3lame", "-b:a", "64k"});
        return true;
      case Media::kVideoOnlyAvi:
        Lavfi(args, video25);
        args.insert(args.end(), {"-c:v", "mpeg4", "-q:v", "5"});
        return true;
      case Media::kVp9VorbisWebm:
        Lavfi(args, video25);
        Lavfi(args, "sine=frequency=440:sample_rate=48000:duration=2");
        args.insert(args.end(), {"-c:v", "libvpx-vp9", "-deadline", "realtime", "-cpu-used", "8",
                                 "-b:v", "200k", "-pix_fmt", "yuv420p", "-c:a", "libvorbis", "-ac", "2"});
        return true;
      case Media::kLongH264Mp3Mkv:
        Lavfi(args, "testsrc=size=320x240:rate=15:duration=40");
        Lavfi(args, "sine=frequency=440:sample_rate=44100:duration=40");
        args.insert(args.end(), h264.begin(), h264.end());
        args.insert(args.end(), {"-c:a", "libmp3lame", "-b:a", "64k", "-ac", "2"});
        return true;
      case Media::kLongLowResMp4:
        Lavfi(args, "testsrc=size=160x120:rate=10:duration=130");
        Lavfi(args, "sine=frequency=440:sample_rate=48000:duration=130");
        args.insert(args.end(), h264.begin(), h264.end());
        args.insert(args.end(), {"-g", "10", "-c:a", "aac", "-b:a", "32k", "-ac", "2"});
        return true;
      case Media::kLongH264AacMp4:
        // Long enough for seeks across a dozen 8-second remux segments.
        Lavfi(args, "testsrc=size=160x120:rate=10:duration=100");
        Lavfi(args, "sine=frequency=440:sample_rate=48000:duration=100");
        args.insert(args.end(), h264.begin(), h264.end());
        args.insert(args.end(), {"-g", "10", "-c:a", "aac", "-b:a", "48k", "-ac", "2"});
        return true;
      default:
        return false;
    }
  }

  // A small input file that recipes read, written once beside the media.
  static std::string SourceFile(const std::string& name, const std::string& content) {
    const std::string path = CacheDir() + "/source-" + name;
    if (Exists(path) || WriteAtomically(path, content)) return path;
    return "";
  }
};

// Serialises generation between test processes; released on destruction.
class CacheLock {
 public:
  CacheLock() {
    fd_ = open((CacheDir() + "/.lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (fd_ < 0) return;
    const long long deadline = NowMs() + kLockTimeoutSeconds * 1000LL;
    while (!(locked_ = flock(fd_, LOCK_EX | LOCK_NB) == 0) && NowMs() < deadline) SleepMs(20);
  }
  ~CacheLock() {
    if (fd_ >= 0) close(fd_);
  }
  CacheLock(const CacheLock&) = delete;
  CacheLock& operator=(const CacheLock&) = delete;

  bool Locked() const { return locked_; }

 private:
  int fd_ = -1;
  bool locked_ = false;
};

}  // namespace

const std::vector<Media>& AllMedia() {
  static const std::vector<Media> all = [] {
    std::vector<Media> kinds;
    for (const Entry& entry : kEntries) kinds.push_back(entry.kind);
    return kinds;
  }();
  return all;
}

std::string MediaName(Media kind) {
  for (const Entry& entry : kEntries) {
    if (entry.kind == kind) return entry.name;
  }
  return "unknown";
}

std::string TestMedia(Media kind) {
  // Files appear under their final names only when complete, so a file that
  // exists needs no lock.
  const std::string path = MediaCache::PathOf(kind);
  if (Exists(path)) return path;
  if (!MakeCacheDir()) {
    ADD_FAILURE() << "cannot create " << CacheDir();
    return "";
  }
  CacheLock lock;
  if (!lock.Locked()) {
    ADD_FAILURE() << "cannot lock the media cache " << CacheDir();
    return "";
  }
  MediaCache cache;
  return cache.Ensure(kind);
}

int RunQuietly(const std::vector<std::string>& argv, int timeoutSeconds) {
  if (argv.empty()) return -1;
  const std::string program = FindInPath(argv[0]);
  if (program.empty()) return -1;
  // Everything the child needs is prepared here: after fork it may only make
  // async-signal-safe calls.
  std::vector<char*> words;
  for (const std::string& word : argv) words.push_back(const_cast<char*>(word.c_str()));
  words.push_back(nullptr);

  const int devnull = open("/dev/null", O_RDWR | O_CLOEXEC);
  if (devnull < 0) return -1;
  int execError[2];
  if (pipe2(execError, O_CLOEXEC) != 0) {
    close(devnull);
    return -1;
  }
  const pid_t pid = fork();
  if (pid == 0) {
    dup2(devnull, STDIN_FILENO);
    dup2(devnull, STDOUT_FILENO);
    dup2(devnull, STDERR_FILENO);
    close_range(3, ~0U, CLOSE_RANGE_CLOEXEC);
    execv(program.c_str(), words.data());
    const int error = errno;
    ssize_t ignored = write(execError[1], &error, sizeof(error));
    (void)ignored;
    _exit(127);
  }
  close(devnull);
  close(execError[1]);
  if (pid < 0) {
    close(execError[0]);
    return -1;
  }
  // The pipe closes at exec; a read that returns data means exec failed.
  int error = 0;
  ssize_t got;
  do {
    got = read(execError[0], &error, sizeof(error));
  } while (got < 0 && errno == EINTR);
  close(execError[0]);
  const int status = WaitBounded(pid, timeoutSeconds);
  return got == static_cast<ssize_t>(sizeof(error)) ? -1 : status;
}

}  // namespace orvotest
