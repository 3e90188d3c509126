#include <gmock/gmock.h>
#include <gtest/gtest.h>

/// The runtime imports the application's Main(); its own main() is not the one that runs here.
__attribute__((visibility("default"))) int Main()
{
    return 0;
}

int main(int argc, char** argv)
{
    // The programs have threads: a death test starts the program anew instead of forking it.
    ::testing::GTEST_FLAG(death_test_style) = "threadsafe";
    ::testing::InitGoogleMock(&argc, argv);
    return RUN_ALL_TESTS();
}
