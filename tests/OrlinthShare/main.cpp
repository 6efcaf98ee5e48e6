#include "OrlinthShare/SheetLook.h"

#include <gmock/gmock.h>

#include <QApplication>

/// Widgets need an application; a screen they do not.
int main(int argc, char** argv) {
    qputenv("QT_QPA_PLATFORM", "offscreen");
    qputenv("QT_QPA_PLATFORMTHEME", "");
    qunsetenv("QT_STYLE_OVERRIDE");
    qunsetenv("DBUS_SESSION_BUS_ADDRESS"); // not the session of whoever runs this
    testing::InitGoogleMock(&argc, argv);
    QApplication application(argc, argv);
    QApplication::setQuitOnLastWindowClosed(false);
    QApplication::setPalette(orlinth::share::sheetPalette(false));
    return RUN_ALL_TESTS();
}
