#include <QCoreApplication>

#include <gtest/gtest.h>

/// For tests of what needs Qt's event loop.
int main(int argc, char* argv[]) {
    ::testing::InitGoogleTest(&argc, argv);
    const QCoreApplication application(argc, argv);
    return RUN_ALL_TESTS();
}
