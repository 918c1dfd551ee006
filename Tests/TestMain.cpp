// The main function of every test program. A program that registers no test fails instead of passing in silence.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>

int main(int argc, char** argv) {
  ::testing::InitGoogleMock(&argc, argv);
  if (::testing::UnitTest::GetInstance()->total_test_count() == 0) {
    std::fputs("this test program holds no test\n", stderr);
    return 1;
  }
  return RUN_ALL_TESTS();
}
