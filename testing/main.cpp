// The main of every test program: the tests run in a throw-away home with no
// desktop, made before any test can bind the shared preferences elsewhere.
#include <gtest/gtest.h>

#include "testing/temp_home.h"

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  gab::testing::ProcessHome();
  return RUN_ALL_TESTS();
}
