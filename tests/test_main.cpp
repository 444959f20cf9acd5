// Test entry: every test process gets a HOME of its own, so no test touches
// the user's real settings.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

int main(int argc, char** argv)
{
    char dir[] = "/tmp/nkr-test-home-XXXXXX";
    if (mkdtemp(dir) != nullptr) setenv("HOME", dir, 1);
    ::testing::InitGoogleTest(&argc, argv);
    int rc = RUN_ALL_TESTS();
    std::string cleanup = std::string("rm -rf '") + dir + "'";
    if (std::system(cleanup.c_str()) != 0) return rc == 0 ? 1 : rc;
    return rc;
}
