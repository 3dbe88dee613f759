// One QApplication for every widget test: Qt allows one per process, and widgets need it before
// they are created.
#include <QApplication>
#include <cstdlib>
#include <gtest/gtest.h>

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    // Offscreen by default, so that the tests run without a display (CI has none).
    if (std::getenv("QT_QPA_PLATFORM") == nullptr) {
        const char* platform = std::getenv("KESTREL_UI_TEST_PLATFORM");
        setenv("QT_QPA_PLATFORM", platform != nullptr ? platform : "offscreen", 1);
    }
    QApplication app(argc, argv);
    return RUN_ALL_TESTS();
}
