// Portable equivalents of the NAS core-library calls the engine uses. A NAS
// build links the platform's own library in place of this file's .cc (see
// docs/platform.md); the contracts below are the ones the engine relies on.
#pragma once

#include <sys/types.h>

// Runs `path` with up to four arguments (a null pointer ends the list early)
// and waits for it. No shell is involved. Returns the program's exit status,
// or -1 when it could not be started or did not exit normally.
int OLIBCExec(const char* path, const char* arg1, const char* arg2, const char* arg3,
              const char* arg4);

// Runs `path` with the null-terminated vector `argv` (argv[0] included).
// Waits and returns the exit status, -1 as above. The engine never starts a
// program detached this way, so wait == 0 fails with EINVAL here.
int OLIBCExecv(const char* path, const char* const argv[], int wait);

// Forks a detached child: -1 on failure, 1 in the caller, 0 in the child.
// The caller returns at once and never gets a zombie: the child is a
// grandchild adopted by init (or the nearest subreaper).
int OLIBCProcForkChildNoWait();

// Whether a process with `pid` exists and has not ended (a zombie has ended).
// A pid below 1 is never alive.
bool OLIBCProcAlive(pid_t pid);

// The pid stored as decimal text in `path`, or -1 when the file is missing,
// unreadable or holds no positive number.
int OLIBCReadPidFile(const char* path);

// Reads the value of `key` from a file of key=value lines ('#' starts a
// comment line; a value may be wrapped in double quotes, which are removed).
// The first line with the key wins. Writes at most size-1 bytes and a NUL.
// Returns the number of bytes written (> 0; less than the value's length when
// the buffer truncated it), 0 when the key is absent or its value empty, -1
// when the file cannot be read or the arguments are bad.
int OLIBCFileGetKeyValue(const char* file, const char* key, char* value, int size, int flags);

// 1 when `key` in the key=value file equals `value`, 0 when it does not or is
// absent, -1 when the file cannot be read (so "non-zero" is not "equal").
int OLIBCFileCheckKeyValue(const char* file, const char* key, const char* value, int flags);

// The calling thread's last platform error (0 when none).
int OLIBCErrGet();
// Sets the last platform error, with the place that set it.
void OLIBCErrSetEx(int error, const char* file, int line);
#define OLIBCErrSet(error) OLIBCErrSetEx((error), __FILE__, __LINE__)
