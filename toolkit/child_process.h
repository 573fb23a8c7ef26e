// Child processes for the programs around the engine (the tools, the NAS
// stand-ins, the tests and benchmarks): started, watched to a deadline and
// always reaped.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace toolkit {

// Where a started program's standard descriptor points: a descriptor of
// this process, or one of these.
constexpr int kInherit = -1;  // as in this process
constexpr int kDevNull = -2;  // /dev/null

struct Wiring {
  int in = kDevNull;
  int out = kInherit;
  int err = kInherit;
  // Descriptors that stay open in the program although close-on-exec here.
  std::vector<int> kept;
  // The program is killed when this process dies, even by SIGKILL.
  bool dieWithParent = false;
  // The program runs as root through and through when root is one of this
  // process's ids (a saved root included), as it is otherwise: a program
  // started with its real and effective users apart runs in the kernel's
  // secure mode, and some libraries give up root at load time there.
  bool rootIfHeld = false;
};

// Starts `argv` (argv[0] is looked up in PATH unless it holds a "/") with
// this process's signal mask, default signal handlers, and no descriptor but
// the three standard ones and `wiring.kept`. Returns its pid once the
// program runs; -1, with the reason in `error` when given, when it could not
// be started (a failed exec included: that child is reaped).
pid_t StartProgram(const std::vector<std::string>& argv, const Wiring& wiring = {},
                   std::string* error = nullptr);

// Forks a child that runs `body` and _exits with what it returns; its pid,
// or -1.
pid_t StartFunction(const std::function<int()>& body);

// Waits at most `timeout` for the child `pid` to end. One still running then
// gets SIGTERM, a second more, and SIGKILL. It is reaped on every path. Its
// exit status; -1 when it was late, ended by a signal, or is no child.
int WaitFor(pid_t pid, std::chrono::milliseconds timeout);

// Runs `argv` as StartProgram does, hands what it writes on its standard
// output to `sink` chunk by chunk until it ends, and stops it when it has not
// ended within `timeout`. Its exit status, or -1 as WaitFor.
using OutputSink = std::function<void(const char* data, size_t size)>;
int RunProgram(const std::vector<std::string>& argv, std::chrono::milliseconds timeout,
               const OutputSink& sink, Wiring wiring = {});

// The same, collecting the output in `output`.
int RunProgram(const std::vector<std::string>& argv, std::chrono::milliseconds timeout,
               std::string* output, Wiring wiring = {});

}  // namespace toolkit
