// main of every test program: it runs in a sandbox, also when it is started by hand.

#include "gtest/gtest.h"
#include "set/sandbox_reexec.h"

int main(int argc, char **argv) {
    const int code = vestra_set::run_in_sandbox_unless_inside(argc, argv, false);
    if (code >= 0) return code;
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
