// How many load-registry operations the machine completes per second while
// processes contend for it. Every stream open, transcoder start and monitor
// exit takes the registry once, and all of them queue on its one lock.
//
//   registry_bench [operations per process]     (default 500)
//
// One operation: take the registry, save a pid, remove it, release (which
// rewrites the file). Each process also keeps one standing entry, so the
// registry holds as many live entries as there are processes.
#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "bench/timing.h"
#include "tests/support/child.h"
#include "tests/support/machine_root.h"
#include "vte/utils/trans_loading.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kProcessCounts[] = {1, 4, 16};
constexpr int kTimeoutSeconds = 300;

bool Operate(int operations) {
  const int me = getpid();
  for (int i = 0; i < operations; ++i) {
    LibReelhall::TransLoading registry;
    if (!registry.SaveTransPID(me, false, false) || !registry.RemoveTransPIDLock(me)) return false;
  }
  return true;
}

// Seconds for `processes` processes to finish `operations` each, started
// together; negative when one of them failed.
double Run(int processes, int operations) {
  int gate[2];
  int ready[2];
  if (pipe2(gate, O_CLOEXEC) != 0) return -1;
  if (pipe2(ready, O_CLOEXEC) != 0) {
    close(gate[0]);
    close(gate[1]);
    return -1;
  }
  std::vector<pid_t> children;
  for (int i = 0; i < processes; ++i) {
    children.push_back(orvotest::StartChild([&] {
      close(gate[1]);
      close(ready[0]);
      {
        LibReelhall::TransLoading registry;
        registry.SaveTransPID(getpid(), false, false);
      }
      if (write(ready[1], "r", 1) != 1) return 1;
      close(ready[1]);
      char byte;
      while (read(gate[0], &byte, 1) > 0) {
      }
      return Operate(operations) ? 0 : 1;
    }));
  }
  close(gate[0]);
  close(ready[1]);
  // Every child registers its standing entry before the gate opens, so
  // set-up is not timed. A child that dies closes its end: no endless wait.
  char byte;
  for (int got = 0; got < processes && read(ready[0], &byte, 1) == 1;) ++got;
  close(ready[0]);
  const Clock::time_point start = Clock::now();
  close(gate[1]);
  bool ok = true;
  for (pid_t child : children) ok = orvotest::WaitForChild(child, kTimeoutSeconds) == 0 && ok;
  const std::chrono::duration<double> spent = Clock::now() - start;
  return ok ? spent.count() : -1;
}

}  // namespace

int main(int argc, char** argv) {
  const int operations = bench::CountArgument(argc, argv, 500, "registry_bench", "operations per process");
  if (operations < 0) return 2;
  orvotest::MachineRoot root;
  printf("%-10s %12s %10s %14s %16s\n", "processes", "operations", "seconds", "operations/s",
         "wall ms per op");
  for (int processes : kProcessCounts) {
    const double seconds = Run(processes, operations);
    if (seconds < 0) {
      fprintf(stderr, "registry_bench: a process failed with %d processes\n", processes);
      return 1;
    }
    const int total = processes * operations;
    printf("%-10d %12d %10.3f %14.0f %16.3f\n", processes, total, seconds, total / seconds,
           seconds * 1000 / total);
  }
  return 0;
}
