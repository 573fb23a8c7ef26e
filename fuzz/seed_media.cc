// Prints the paths of the tests' generated media, generating any the cache
// lacks, so the probe's corpus is seeded from the same files the tests use.
#include <cstdio>

#include "tests/support/test_media.h"

int main() {
  int status = 0;
  for (orvotest::Media kind : orvotest::AllMedia()) {
    const std::string path = orvotest::TestMedia(kind);
    if (path.empty()) {
      status = 1;
      continue;
    }
    printf("%s\n", path.c_str());
  }
  return status;
}
