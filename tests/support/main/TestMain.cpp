// main() of every test executable: a private HOME per process, then GoogleTest.
#include "support/TempHome.h"

#include <gtest/gtest.h>

// Debian's cpp-httplib is not built with ThreadSanitizer, so TSan sees its worker
// threads' hand-offs (in the in-test servers) as races; reports raised from
// inside that library are set aside. Our own code stays fully checked.
extern "C" const char* __tsan_default_suppressions() {
    return "called_from_lib:libcpp-httplib.so\n";
}

int main(int argc, char** argv) {
    zubtest::TempHome::install();
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
