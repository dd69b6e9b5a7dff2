#include <QApplication>

#include <gtest/gtest.h>

#ifdef __SANITIZE_THREAD__
/// Qt's file panel reads folders on a thread of Qt's own, into which the sanitizer cannot see.
extern "C" const char* __tsan_default_options() {
    return "ignore_noninstrumented_modules=1";
}
#endif

/// For tests of what needs the clipboard and panels, on no screen.
int main(int argc, char* argv[]) {
    ::testing::InitGoogleTest(&argc, argv);
    qputenv("QT_QPA_PLATFORM", "offscreen");
    const QApplication application(argc, argv);
    return RUN_ALL_TESTS();
}
