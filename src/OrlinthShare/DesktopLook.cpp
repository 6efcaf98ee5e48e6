#include "OrlinthShare/DesktopLook.h"

#include "OrlinthShare/SheetLook.h"

#include <QApplication>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusVariant>
#include <QDeadlineTimer>
#include <QFileInfo>
#include <chrono>

namespace orlinth::share {
namespace {

constexpr std::chrono::milliseconds portalPatience{250};
constexpr std::chrono::milliseconds busPatience{1000};

/// Asking for a bus that is not there could start one.
bool hasSessionBus() {
    return qEnvironmentVariableIsSet("DBUS_SESSION_BUS_ADDRESS") ||
           (qEnvironmentVariableIsSet("XDG_RUNTIME_DIR") &&
            QFileInfo::exists(qEnvironmentVariable("XDG_RUNTIME_DIR") + QStringLiteral("/bus")));
}

} // namespace

std::optional<ColorScheme> colorSchemeNamed(const QString& name) {
    if (name == QStringLiteral("light")) {
        return ColorScheme::light;
    }
    if (name == QStringLiteral("dark")) {
        return ColorScheme::dark;
    }
    return std::nullopt;
}

std::optional<ColorScheme> portalColorScheme() {
    if (!hasSessionBus()) {
        return std::nullopt;
    }
    QDBusMessage question = QDBusMessage::createMethodCall(
        QStringLiteral("org.freedesktop.portal.Desktop"), QStringLiteral("/org/freedesktop/portal/desktop"),
        QStringLiteral("org.freedesktop.portal.Settings"), QStringLiteral("Read"));
    question << QStringLiteral("org.freedesktop.appearance") << QStringLiteral("color-scheme");
    const QDBusMessage reply =
        QDBusConnection::sessionBus().call(question, QDBus::Block, static_cast<int>(portalPatience.count()));
    if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().isEmpty()) {
        return std::nullopt;
    }
    // a number in a variant in a variant
    QVariant value = reply.arguments().constFirst();
    while (value.canConvert<QDBusVariant>()) {
        value = value.value<QDBusVariant>().variant();
    }
    constexpr uint preferDark = 1;
    constexpr uint preferLight = 2;
    switch (value.toUInt()) {
    case preferDark:
        return ColorScheme::dark;
    case preferLight:
        return ColorScheme::light;
    default:
        return std::nullopt;
    }
}

bool bringsItsPalette() {
    const QStringList desktops = qEnvironmentVariable("XDG_CURRENT_DESKTOP").split(u':');
    return qEnvironmentVariableIsSet("QT_QPA_PLATFORMTHEME") || desktops.contains(QStringLiteral("KDE")) ||
           desktops.contains(QStringLiteral("LXQt"));
}

std::unique_ptr<QThread> applyDesktopLook(std::optional<ColorScheme> wanted) {
    if (!wanted && bringsItsPalette()) {
        return nullptr;
    }
    std::unique_ptr<QThread> waiting;
    if (!wanted) {
        const auto answer = std::make_shared<std::optional<ColorScheme>>();
        waiting.reset(QThread::create([answer] { *answer = portalColorScheme(); }));
        waiting->start();
        if (waiting->wait(QDeadlineTimer(busPatience))) {
            wanted = *answer;
            waiting.reset();
        }
    }
    QApplication::setPalette(sheetPalette(wanted == ColorScheme::dark));
    return waiting;
}

} // namespace orlinth::share
