#include "BrowserHarness.hpp"

#include <gtest/gtest.h>

#include <cstring>

int main(int argc, char** argv) {
    bool listing = false;
    for (int i = 1; i < argc; ++i) listing = listing || std::strcmp(argv[i], "--gtest_list_tests") == 0;
    ::testing::InitGoogleTest(&argc, argv);
    if (!listing && !kelvane::browser::setUpDesktop()) {
        std::fprintf(stderr, "No display: Xvfb did not start or GTK could not open it\n");
        return 1;
    }
    int result = RUN_ALL_TESTS();
    kelvane::browser::tearDownDesktop();
    return result;
}
