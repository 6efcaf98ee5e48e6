#include "OrlinthShare/SheetLook.h"
#include "fakes/OwnEnvironment.h"

#include <gmock/gmock.h>

#include <QApplication>

/// Widgets need an application; a screen they do not.
int main(int argc, char** argv) {
    orlinth::fakes::enterOwnEnvironment();
    qputenv("QT_QPA_PLATFORM", "offscreen");
    testing::InitGoogleMock(&argc, argv);
    QApplication application(argc, argv);
    QApplication::setQuitOnLastWindowClosed(false);
    QApplication::setPalette(orlinth::share::sheetPalette(false));
    return RUN_ALL_TESTS();
}
