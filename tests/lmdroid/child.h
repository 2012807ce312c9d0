// Runs this test binary again as a fresh process in the child mode named by LMDROID_TEST_CHILD (see child.cpp), with
// the parent's environment. Shows what survives a restart and what the environment does at start-up.
#pragma once

#include <sys/types.h>

#include <string>

namespace lmdroid_test {
// Returns the child's pid, with its standard output readable on *out_fd.
pid_t spawn_child(const char* mode, int* out_fd);
// Runs the child to its end; *status is its exit status (-1 if killed).
std::string run_child(const char* mode, int* status);

}  // namespace lmdroid_test
