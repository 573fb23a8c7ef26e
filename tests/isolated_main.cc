// The test programs' main. Run whole, a program runs each selected case in a
// fresh process of its own, as ctest does and as production runs each
// request: per-process state (the platform singleton, signal flags, ids) then
// never carries over from one case to the next.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

constexpr char kIsolatedVariable[] = "ORVOTEST_ISOLATED_CASE";

// The full names of the cases `filter` selects, as the program lists them.
std::vector<std::string> SelectedCases(const std::string& self, const std::string& filter) {
  std::vector<std::string> cases;
  const std::string command =
      "'" + self + "' --gtest_list_tests '--gtest_filter=" + filter + "' 2>/dev/null";
  FILE* list = popen(command.c_str(), "r");
  if (list == nullptr) return cases;
  std::string suite;
  char line[4096];
  while (fgets(line, sizeof(line), list) != nullptr) {
    std::string text(line);
    text = text.substr(0, text.find_first_of("#\n"));
    while (!text.empty() && text.back() == ' ') text.pop_back();
    if (text.empty()) continue;
    if (text[0] != ' ') {
      suite = text;
    } else {
      cases.push_back(suite + text.substr(text.find_first_not_of(' ')));
    }
  }
  pclose(list);
  return cases;
}

int RunCase(const std::string& self, const std::string& name, char** extraArguments) {
  pid_t pid = fork();
  if (pid == 0) {
    setenv(kIsolatedVariable, name.c_str(), 1);
    std::vector<std::string> words = {self, "--gtest_filter=" + name};
    for (char** argument = extraArguments; *argument != nullptr; ++argument) {
      if (std::string(*argument).rfind("--gtest_filter", 0) != 0) words.push_back(*argument);
    }
    std::vector<char*> argv;
    for (std::string& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    execv(self.c_str(), argv.data());
    _exit(127);
  }
  if (pid < 0) return -1;
  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  const bool listing = testing::GTEST_FLAG(list_tests);
  if (listing || getenv(kIsolatedVariable) != nullptr) return RUN_ALL_TESTS();

  char self[4096];
  ssize_t length = readlink("/proc/self/exe", self, sizeof(self) - 1);
  if (length <= 0) return RUN_ALL_TESTS();
  self[length] = '\0';
  const std::vector<std::string> cases = SelectedCases(self, testing::GTEST_FLAG(filter));
  if (cases.size() <= 1) return RUN_ALL_TESTS();

  std::vector<std::string> failed;
  for (const std::string& name : cases) {
    if (RunCase(self, name, argv + 1) != 0) failed.push_back(name);
  }
  printf("\n%zu passed, %zu failed\n", cases.size() - failed.size(), failed.size());
  for (const std::string& name : failed) printf("FAILED: %s\n", name.c_str());
  return failed.empty() ? 0 : 1;
}
