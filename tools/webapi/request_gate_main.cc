// Stands set-user-ID root in front of webapi-cgi when an unprivileged web
// server runs the web API, as on the NAS. The web API links libraries (FFmpeg
// pulls in libgcrypt) whose load-time set-up gives up every root id of a
// process whose real and effective users differ; so the gate becomes wholly
// root, names the server's user in WEBAPI_REQUEST_USER ("uid:gid") and runs
// webapi-cgi, which goes back to that user with root saved before anything
// else. The program it runs is fixed when it is built, never taken from the
// caller, and it gets only the variables a web server hands a request: the
// loader trusts the whole environment of a program started as root.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

extern char** environ;

namespace {

const char* const kPrefixes[] = {"HTTP_", "WEBAPI_", "SERVER_", "REMOTE_", "REQUEST_", "SCRIPT_"};
const char* const kNames[] = {"PATH",         "QUERY_STRING", "CONTENT_LENGTH", "CONTENT_TYPE",
                              "PATH_INFO",    "GATEWAY_INTERFACE", "DOCUMENT_ROOT",
                              "ORVOVTE_MACHINE_ROOT"};

bool Passed(const char* variable) {
  for (const char* prefix : kPrefixes) {
    if (strncmp(variable, prefix, strlen(prefix)) == 0) return true;
  }
  for (const char* name : kNames) {
    const size_t length = strlen(name);
    if (strncmp(variable, name, length) == 0 && variable[length] == '=') return true;
  }
  return false;
}

}  // namespace

int main(int, char** argv) {
  const uid_t user = getuid();
  const gid_t group = getgid();
  if (setresgid(0, 0, 0) != 0 || setresuid(0, 0, 0) != 0) return 1;
  char ids[64];
  snprintf(ids, sizeof(ids), "WEBAPI_REQUEST_USER=%u:%u", static_cast<unsigned>(user),
           static_cast<unsigned>(group));
  size_t count = 0;
  for (char** entry = environ; *entry != nullptr; ++entry) ++count;
  char** passed = static_cast<char**>(calloc(count + 2, sizeof(char*)));
  if (passed == nullptr) return 1;
  size_t kept = 0;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    if (Passed(*entry) && strncmp(*entry, "WEBAPI_REQUEST_USER=", 20) != 0) passed[kept++] = *entry;
  }
  passed[kept++] = ids;
  execve(WEBAPI_CGI_PATH, argv, passed);
  return 127;
}
