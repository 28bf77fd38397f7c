/* zub.h on its own, as a C99 and as a C++20 translation unit: CTest compiles this
   file both ways with every warning an error (tests/CMakeLists.txt). */
#include <ZUBCocoa/zub.h>

int zub_header_check(void);

int zub_header_check(void) {
    zub_delivery_limits limits = {10000, 1024, 200, true};
    zub_log_sink sink = 0;
    (void)sink;
    return zub_set_delivery_limits(&limits) == ZUB_OK ? 0 : 1;
}
