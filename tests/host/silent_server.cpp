// A server process to be killed: says on standard output that it listens, then that it has been
// called, and never answers.
#include <unistd.h>

#include <cstdio>

#include "tests/host/faulty_server.hpp"

int main(int argc, char** argv) {
  if (argc != 2) {
    return 1;
  }
  kel::host::test::FaultyServer server(argv[1], {.replies = {}, .answers = false});
  std::puts("listening");
  std::fflush(stdout);
  server.take();
  std::puts("called");
  std::fflush(stdout);
  pause();
}
