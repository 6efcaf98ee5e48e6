#include "OrlinthShare/DesktopLook.h"

#include "OrlinthShare/SheetLook.h"
#include "fakes/PrivateBus.h"

#include <gmock/gmock.h>

#include <QApplication>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusVariant>
#include <QDBusVirtualObject>
#include <QElapsedTimer>
#include <QThread>
#include <memory>

namespace orlinth::share {
namespace {

/// A desktop's settings portal that answers with a number, or not at all.
class Portal : public QDBusVirtualObject {
public:
    explicit Portal(std::optional<uint> answer) : answer_(answer) {}

    [[nodiscard]] QString introspect(const QString& /*path*/) const override { return {}; }
    bool handleMessage(const QDBusMessage& message, const QDBusConnection& connection) override {
        const QVariantList expected{QStringLiteral("org.freedesktop.appearance"), QStringLiteral("color-scheme")};
        if (message.interface() != QStringLiteral("org.freedesktop.portal.Settings") ||
            message.member() != QStringLiteral("Read") || message.arguments() != expected) {
            return false;
        }
        if (answer_) {
            const QDBusVariant inner{QVariant(*answer_)};
            connection.send(message.createReply(QVariant::fromValue(QDBusVariant(QVariant::fromValue(inner)))));
        }
        return true;
    }

private:
    std::optional<uint> answer_;
};

/// A session with a bus, and a portal on it, which lives on a thread of its own.
class DesktopLookTest : public testing::Test {
protected:
    static void SetUpTestSuite() {
        // Qt looks for the session's bus once
        bus_ = std::make_unique<fakes::PrivateBus>();
        qputenv("DBUS_SESSION_BUS_ADDRESS", fakes::busAddress());
    }
    static void TearDownTestSuite() {
        QDBusConnection::disconnectFromBus(QStringLiteral("qt_default_session_bus"));
        bus_.reset();
    }
    DesktopLookTest() {
        qunsetenv("XDG_CURRENT_DESKTOP");
        qunsetenv("QT_QPA_PLATFORMTHEME");
        thread_.start();
    }
    ~DesktopLookTest() override {
        if (portal_) {
            QDBusConnection connection(name_);
            connection.unregisterObject(path_);
            connection.unregisterService(QStringLiteral("org.freedesktop.portal.Desktop"));
            QDBusConnection::disconnectFromBus(name_);
        }
        thread_.quit();
        thread_.wait();
        QApplication::setPalette(sheetPalette(false));
    }

    void offer(std::optional<uint> answer) {
        portal_ = std::make_unique<Portal>(answer);
        portal_->moveToThread(&thread_);
        QDBusConnection connection = QDBusConnection::connectToBus(QString::fromUtf8(fakes::busAddress()), name_);
        ASSERT_TRUE(connection.registerVirtualObject(path_, portal_.get()));
        ASSERT_TRUE(connection.registerService(QStringLiteral("org.freedesktop.portal.Desktop")));
    }

    [[nodiscard]] static bool isDark() { return SheetColors::of(QApplication::palette()).isDark; }

    static std::unique_ptr<fakes::PrivateBus> bus_;
    QThread thread_;
    const QString name_ = QStringLiteral("the desktop");
    const QString path_ = QStringLiteral("/org/freedesktop/portal/desktop");
    std::unique_ptr<Portal> portal_;
};

std::unique_ptr<fakes::PrivateBus> DesktopLookTest::bus_;

TEST_F(DesktopLookTest, IsDarkOnADarkDesktop) {
    offer(1);
    EXPECT_EQ(portalColorScheme(), ColorScheme::dark);
    EXPECT_EQ(applyDesktopLook(std::nullopt), nullptr);
    EXPECT_TRUE(isDark());
}

TEST_F(DesktopLookTest, IsLightOnALightDesktop) {
    offer(2);
    EXPECT_EQ(portalColorScheme(), ColorScheme::light);
    QApplication::setPalette(sheetPalette(true));
    EXPECT_EQ(applyDesktopLook(std::nullopt), nullptr);
    EXPECT_FALSE(isDark());
}

TEST_F(DesktopLookTest, IsLightWhereTheDesktopHasNoPreference) {
    offer(0);
    EXPECT_EQ(portalColorScheme(), std::nullopt);
    EXPECT_EQ(applyDesktopLook(std::nullopt), nullptr);
    EXPECT_FALSE(isDark());
}

TEST_F(DesktopLookTest, IsLightWithoutAPortal) {
    EXPECT_EQ(portalColorScheme(), std::nullopt);
}

TEST_F(DesktopLookTest, DoesNotWaitLongForAPortalThatIsSilent) {
    offer(std::nullopt);
    QElapsedTimer time;
    time.start();
    EXPECT_EQ(portalColorScheme(), std::nullopt);
    EXPECT_GE(time.elapsed(), 200);
    EXPECT_LT(time.elapsed(), 5000);
}

TEST_F(DesktopLookTest, AsksNobodyWhereItWasToldWhatToBe) {
    offer(1);
    EXPECT_EQ(applyDesktopLook(ColorScheme::light), nullptr);
    EXPECT_FALSE(isDark());
    EXPECT_EQ(applyDesktopLook(ColorScheme::dark), nullptr);
    EXPECT_TRUE(isDark());
}

TEST_F(DesktopLookTest, LeavesThePaletteOfADesktopThatBringsItsOwn) {
    offer(1);
    for (const char* const desktop : {"KDE", "X-Something:KDE", "LXQt"}) {
        qputenv("XDG_CURRENT_DESKTOP", desktop);
        EXPECT_TRUE(bringsItsPalette()) << desktop;
        EXPECT_EQ(applyDesktopLook(std::nullopt), nullptr);
        EXPECT_FALSE(isDark()) << desktop;
    }
    qputenv("XDG_CURRENT_DESKTOP", "GNOME");
    EXPECT_FALSE(bringsItsPalette());
    qputenv("QT_QPA_PLATFORMTHEME", "gtk3");
    EXPECT_TRUE(bringsItsPalette());
    qunsetenv("QT_QPA_PLATFORMTHEME");
    qunsetenv("XDG_CURRENT_DESKTOP");
}

} // namespace
} // namespace orlinth::share
