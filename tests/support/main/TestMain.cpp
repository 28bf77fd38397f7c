// main() of every test executable: a private HOME per process, then GoogleTest.
#include "support/TempHome.h"

#include <gtest/gtest.h>

int main(int argc, char** argv) {
    zubtest::TempHome::install();
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
