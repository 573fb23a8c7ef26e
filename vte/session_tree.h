// The session trees on disk: "<temp root>/<type>/<id>" for every session,
// and for every type but "HTTP" the volume directory the session's link
// points to, "<volume>/@tmp/Reelhall/<type>/<id>". Other local users can
// create entries in both trees (the directories are world-writable), so
// nothing here is trusted for what it is called: a session counts as the
// library's only when it has the shape the library gives it. Internal to
// vte/.
#pragma once

#include <sys/types.h>

#include <string>

namespace LibOrvoVTE {
namespace session {

// "<temp root>/<type>".
std::string TypeDir(const std::string& type);
// "<mount>/@tmp/Reelhall/<type>", where a volume keeps the sessions of a type.
std::string VolumeTypeDir(const std::string& mount, const std::string& type);

// Creates a type directory (and its parents) world-writable with the
// sticky bit: every user may add sessions, only a session's owner may
// remove or replace it.
bool MakeTypeDir(const std::string& dir);

// What stands at "<temp root>/<type>/<id>".
struct Entry {
  enum Kind {
    kMissing,  // nothing
    kMade,     // what the library makes: see Inspect
    kForeign,  // anything else, never followed, signalled from or removed
  };
  Kind kind = kMissing;
  uid_t owner = 0;  // of the entry itself
  // The directory holding the session's files; "" when missing or when a
  // link's volume directory is gone.
  std::string dir;
};

// A session is made by the library when it is, for "HTTP", a real directory,
// and for every other type a link, written as "<mount>/@tmp/Reelhall/<type>/
// <id>" with <mount> a data volume, that leads there without any other link
// on the way, to a directory owned by the link's owner (or to nothing yet).
Entry Inspect(const std::string& type, const std::string& id);

// Whether this process writes into and signals from sessions of `owner`:
// root's and its own real or effective user's, never another user's.
bool TrustedOwner(uid_t owner);

// Inspect's verdict for a stream of this process: a session it may use.
bool Usable(const Entry& entry);

// Creates the link "<temp root>/<type>/<id>" to `volumeDir`. `exclusive`:
// fails (EEXIST) when anything stands there; otherwise whatever stands there
// (a stale link, a file) is replaced in one step, so that concurrent
// creations of one id all succeed.
bool CreateLink(const std::string& type, const std::string& id, const std::string& volumeDir,
                bool exclusive);

// A transcoder may still be writing while its session is removed; it ends
// within a few seconds of its monitor's signal.
inline constexpr int kRemoveAttempts = 30;

// Removes a session the library made: its link first, so that a transcoder
// writing through it can create nothing more, then its volume directory,
// moved aside and deleted until it is gone (at most `attempts` times); an
// "HTTP" session's directory. False, touching nothing, for anything else.
bool Remove(const std::string& type, const std::string& id, int attempts = kRemoveAttempts);

// Deletes the tree `path` (with "/bin/rm -rf", which follows no link in
// it), again while files keep appearing in it, at most `attempts` times;
// true once it is gone.
bool RemoveTree(const std::string& path, int attempts = kRemoveAttempts);

}  // namespace session
}  // namespace LibOrvoVTE
