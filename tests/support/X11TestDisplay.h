// The private X server that a ctest fixture started for an x11 test. Tests never fall back to
// the user's own $DISPLAY: outside ctest there is no test display and the test is skipped.
#pragma once

#include <string>

#include <gtest/gtest.h>

namespace quorvix::test {

// ":N" of the fixture's server, or "" when the test runs without its fixture.
std::string testDisplayName();

// Runs a shell command (xrandr, setxkbmap, ...) against the test display; its exit status.
int runOnTestDisplay(const std::string& command);

}  // namespace quorvix::test

// Skips the current test when no fixture display was given.
#define QRV_REQUIRE_TEST_DISPLAY()                                                         \
  do {                                                                                     \
    if (::quorvix::test::testDisplayName().empty()) {                                      \
      GTEST_SKIP() << "no test X server: run through ctest, which starts one (label x11)"; \
    }                                                                                      \
  } while (false)
