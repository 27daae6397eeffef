// main of every test program: started by hand, too, it runs in a sandbox.

#include "gtest/gtest.h"
#include "set/sandbox_reexec.h"

int main(int argc, char **argv) {
    const int code = vestra_set::run_in_sandbox_unless_inside(argc, argv, VESTRA_TEST_NODE != 0);
    if (code >= 0) return code;
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
