// Finding a data volume with room for a session's output.
#pragma once

#include <string>
#include <vector>

// Status bits reported by VolumeAvailGet.
inline constexpr int kVolumeStatusFound = 0x1;     // at least one data volume exists
inline constexpr int kVolumeStatusReadOnly = 0x4;  // a volume exists but none is writable

struct VolumeInfo {
  std::string mountPath;             // e.g. "/volume1" under the machine root
  unsigned long long availableBytes;  // free to an unprivileged writer
};

// Picks, among the data volumes under the machine root, the writable one with
// the most free space, provided it has at least `neededBytes`.
// Returns 1 and fills `info` when one fits; 0 when none does, with `status`
// describing what was seen; -1 on a failure to look (OLIBCErrGet tells why).
int VolumeAvailGet(unsigned long long neededBytes, VolumeInfo* info, int* status, int flags);

// The data volumes' mount paths under the machine root ("/volume" followed
// by digits), sorted; false on a failure to look (OLIBCErrGet tells why).
bool VolumeMounts(std::vector<std::string>* mounts);

// Whether `path` is written as a data volume's mount path under the machine
// root: the root's "/volume" followed by digits, nothing else.
bool IsVolumeMountPath(const std::string& path);

// Whether the file system holding `path` has run out of room for a stream's
// output: less than a megabyte left to an unprivileged writer. A path that
// cannot be examined does not count as full; the writes into it will fail
// on their own.
bool VolumeFull(const std::string& path);

// A data volume as VolumeAvailGet sees it.
struct VolumeCandidate {
  std::string mountPath;
  unsigned long long availableBytes;
  bool writable;
};

// The choice VolumeAvailGet makes once the volumes are known, apart from the
// file system so it can be checked case by case: 1 and `info` filled when a
// writable candidate has `neededBytes` (the roomiest wins, the earliest on a
// tie), else 0. `status` gets the status bits either way.
int ChooseVolume(const std::vector<VolumeCandidate>& candidates, unsigned long long neededBytes,
                 VolumeInfo* info, int* status);
