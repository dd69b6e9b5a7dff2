#include "Quillvane/Accessibility.h"

#include <QApplication>

#include <gtest/gtest.h>

// Made by the build: the types that the window's files know.
void qml_register_types_Quillvane();

#ifdef __SANITIZE_ADDRESS__
/// Qt's software renderer keeps the pictures of the last window, and loses them at the end.
extern "C" const char* __lsan_default_suppressions() {
    return "leak:QSGTexture::QSGTexture\n";
}
#endif

#ifdef __SANITIZE_THREAD__
/// Qt loads the window's files and reads folders for its file panel on threads of its own, into
/// which the sanitizer cannot see.
extern "C" const char* __tsan_default_options() {
    return "ignore_noninstrumented_modules=1";
}
#endif

/// For tests of the window and its parts, on no screen and by no graphics hardware.
int main(int argc, char* argv[]) {
    ::testing::InitGoogleTest(&argc, argv);
    qputenv("QT_QPA_PLATFORM", "offscreen");
    qputenv("QT_QUICK_BACKEND", "software");
    qml_register_types_Quillvane();
    const QApplication application(argc, argv);
    Accessibility::install();
    return RUN_ALL_TESTS();
}
