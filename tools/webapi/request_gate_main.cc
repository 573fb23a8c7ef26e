// Stands set-user-ID root in front of webapi-cgi when an unprivileged web
// server runs the web API, as on the NAS. The web API links libraries (FFmpeg
// pulls in libgcrypt) whose load-time set-up gives up every root id of a
// process whose real and effective users differ; so the gate becomes wholly
// root, names the server's user in WEBAPI_REQUEST_USER ("uid:gid") and runs
// webapi-cgi, which goes back to that user with root saved before anything
// else. The program it runs is fixed when it is built, never taken from the
// caller. The loader, and the web API, trust the whole environment of a
// program started as root: the gate passes on only the request's own
// variables (the CGI ones and its headers), and takes every other one (where
// the machine and the media are, the programs run as root) from the file
// beside it, "<gate>.env", one NAME=VALUE a line, which must be root's and
// writable by nobody else.
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

extern char** environ;

namespace {

const char* const kPrefixes[] = {"HTTP_", "SERVER_", "REMOTE_", "REQUEST_", "SCRIPT_"};
const char* const kNames[] = {"QUERY_STRING", "CONTENT_LENGTH", "CONTENT_TYPE", "PATH_INFO",
                              "GATEWAY_INTERFACE", "DOCUMENT_ROOT"};

bool RequestVariable(const char* variable) {
  for (const char* prefix : kPrefixes) {
    if (strncmp(variable, prefix, strlen(prefix)) == 0) return true;
  }
  for (const char* name : kNames) {
    const size_t length = strlen(name);
    if (strncmp(variable, name, length) == 0 && variable[length] == '=') return true;
  }
  return false;
}

// The trusted variables; false when the file is missing or not root's alone.
bool ReadTrusted(std::vector<std::string>* variables) {
  char gate[PATH_MAX];
  const ssize_t length = readlink("/proc/self/exe", gate, sizeof(gate) - 1);
  if (length <= 0) return false;
  gate[length] = '\0';
  const std::string path = std::string(gate) + ".env";
  FILE* file = fopen(path.c_str(), "re");
  if (file == nullptr) return false;
  struct stat info;
  if (fstat(fileno(file), &info) != 0 || info.st_uid != 0 || (info.st_mode & 022) != 0) {
    fclose(file);
    return false;
  }
  char line[4096];
  while (fgets(line, sizeof(line), file) != nullptr) {
    line[strcspn(line, "\n")] = '\0';
    if (strchr(line, '=') != nullptr) variables->push_back(line);
  }
  fclose(file);
  return true;
}

}  // namespace

int main(int, char** argv) {
  const uid_t user = getuid();
  const gid_t group = getgid();
  if (setresgid(0, 0, 0) != 0 || setresuid(0, 0, 0) != 0) return 1;
  std::vector<std::string> variables;
  if (!ReadTrusted(&variables)) return 1;
  variables.push_back("WEBAPI_REQUEST_USER=" + std::to_string(user) + ":" + std::to_string(group));
  std::vector<char*> passed;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    if (RequestVariable(*entry)) passed.push_back(*entry);
  }
  for (std::string& variable : variables) passed.push_back(&variable[0]);
  passed.push_back(nullptr);
  execve(WEBAPI_CGI_PATH, argv, passed.data());
  return 127;
}
