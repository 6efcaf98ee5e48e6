#include "OrlinthShare/SharePickerView.h"

#include "OrlinthShare/ShareBackgroundView.h"
#include "OrlinthShare/ShareStatusView.h"

#include <gmock/gmock.h>

#include <QAccessible>
#include <QApplication>
#include <QElapsedTimer>
#include <QFocusEvent>
#include <QIcon>
#include <QLabel>
#include <QScrollBar>
#include <QTest>
#include <QWindow>
#include <map>
#include <optional>

namespace orlinth::share {
namespace {

using testing::ElementsAre;
using testing::Optional;
using Peers = std::vector<ShareOutbox::SharePeer>;

/// As many phones, with keys "key 1", "key 2", ...
Peers phones(std::size_t count) {
    Peers peers;
    for (std::size_t i = 1; i <= count; ++i) {
        peers.push_back({.hostname = "Phone " + std::to_string(i),
                         .pubkey = PeerKey("key " + std::to_string(i)),
                         .subtitle = "192.168.1." + std::to_string(i)});
    }
    return peers;
}

class SharePickerViewTest : public testing::Test {
protected:
    ~SharePickerViewTest() override { QApplication::setPalette(sheetPalette(false)); }

    /// Shows a picker in its window, with the first phone chosen.
    void show(const Peers& peers, std::size_t fileCount = 1, const QString& name = QStringLiteral("holiday.jpg")) {
        std::set<PeerKey> selected;
        if (!peers.empty()) {
            selected.insert(peers.front().pubkey);
        }
        picker_ = new SharePickerView(peers, std::move(selected), QStringLiteral("ann-laptop"));
        picker_->build(fileCount, name);
        picker_->onSend = [this](std::vector<PeerKey> keys) { sent_ = std::move(keys); };
        picker_->onCancel = [this] { ++cancels_; };
        window_ = std::make_unique<ShareBackgroundView>(); // which owns the picker
        window_->onDismiss = [this] { ++dismissals_; };
        window_->setFixedSize(SharePickerView::sheetWidth, picker_->contentHeight());
        picker_->setParent(window_.get());
        picker_->setGeometry(0, 0, SharePickerView::sheetWidth, picker_->contentHeight());
        window_->show();
        window_->activateWindow();
        ASSERT_TRUE(QTest::qWaitForWindowActive(window_.get()));
    }

    void key(Qt::Key which, Qt::KeyboardModifiers modifiers = Qt::NoModifier) {
        QTest::keyClick(window_->windowHandle(), which, modifiers);
    }

    void click(QWidget* widget) {
        QTest::mouseClick(window_->windowHandle(), Qt::LeftButton, Qt::NoModifier,
                          widget->mapTo(window_.get(), widget->rect().center()));
    }

    /// Keeps what the window looks like now, to be looked at.
    void keepPicture(const char* name) {
        EXPECT_TRUE(window_->grab().save(QStringLiteral(ORLINTH_TEST_PICTURES "/%1.png").arg(QLatin1String(name))));
    }

    /// The label of the sheet that has this text.
    [[nodiscard]] QWidget* labelled(const QString& text) {
        for (QWidget* widget : picker_->findChildren<QWidget*>()) {
            if (widget->accessibleName() == text && widget->isVisible()) {
                return widget;
            }
        }
        return nullptr;
    }

    [[nodiscard]] PhoneRow& row(std::size_t at) { return *picker_->rows().at(at); }
    [[nodiscard]] std::string sendTitle() { return picker_->sendButton()->text().toStdString(); }
    /// Where a widget is in the window.
    [[nodiscard]] QRect place(QWidget* widget) { return {widget->mapTo(window_.get(), QPoint(0, 0)), widget->size()}; }

    std::unique_ptr<ShareBackgroundView> window_;
    SharePickerView* picker_ = nullptr;
    std::optional<std::vector<PeerKey>> sent_;
    int cancels_ = 0;
    int dismissals_ = 0;
};

TEST_F(SharePickerViewTest, HasItsNameInFifteenPointsAndTheBrandBesideIt) {
    show(phones(1));
    QWidget* const title = labelled(QStringLiteral("Orlinth"));
    ASSERT_NE(nullptr, title);
    EXPECT_EQ(15, title->font().pixelSize());
    EXPECT_EQ(QApplication::font().family(), title->font().family());
    const QImage brand =
        QIcon(QStringLiteral(":/orlinth-menubar.svg")).pixmap(QSize(36, 36), picker_->devicePixelRatioF()).toImage();
    ASSERT_FALSE(brand.isNull());
    std::vector<QLabel*> badges;
    for (QLabel* label : picker_->findChildren<QLabel*>()) {
        if (label->isVisible() && label->pixmap().toImage() == brand) {
            badges.push_back(label);
        }
    }
    ASSERT_EQ(1U, badges.size());
    EXPECT_TRUE(place(badges.front()).right() < place(title).left());
    EXPECT_TRUE(place(badges.front()).bottom() < 62) << "below the header";
}

TEST_F(SharePickerViewTest, IsAsHighAsItsPhonesNeed) {
    const std::map<std::size_t, int> heights{{0, 216}, {2, 256}, {3, 316}, {4, 376}, {5, 376}, {9, 376}};
    for (const auto& [count, height] : heights) {
        EXPECT_EQ(SharePickerView::heightFor(count), height) << count;
        show(phones(count));
        EXPECT_EQ(picker_->contentHeight(), height) << count;
        EXPECT_EQ(window_->size(), QSize(400, height)) << count;
        EXPECT_EQ(picker_->sizeHint().width() <= 400, true) << count;
        keepPicture(("picker-" + std::to_string(count)).c_str());
    }
}

TEST_F(SharePickerViewTest, LaysItsRowsOutUnderAHeaderOf62WithGapsOf8) {
    show(phones(4));
    int top = 62 + 1 + 12;
    for (PhoneRow* const one : picker_->rows()) {
        EXPECT_EQ(place(one), QRect(16, top, 368, 52));
        top += 52 + 8;
    }
    EXPECT_EQ(picker_->thumb()->size(), QSize(30, 34));
    EXPECT_GT(place(picker_->sendButton()).top(), 376 - 56);
    EXPECT_LT(place(picker_->sendButton()).bottom(), 376);
    EXPECT_LT(place(picker_->cancelButton()).right(), place(picker_->sendButton()).left());
}

TEST_F(SharePickerViewTest, KeepsItsRowsAsWideWhenTheyAreScrolled) {
    show(phones(5));
    EXPECT_EQ(row(0).width(), 368);
    EXPECT_EQ(place(&row(0)).left(), 16);
    EXPECT_TRUE(picker_->scrollArea()->verticalScrollBar()->isVisible());
    EXPECT_GT(picker_->scrollArea()->verticalScrollBar()->maximum(), 0);
    show(phones(4));
    EXPECT_EQ(picker_->scrollArea()->verticalScrollBar()->maximum(), 0);
}

TEST_F(SharePickerViewTest, HasTheFirstPhoneChosen) {
    show(phones(3));
    EXPECT_TRUE(row(0).isOn());
    EXPECT_FALSE(row(1).isOn());
    EXPECT_FALSE(row(2).isOn());
    EXPECT_THAT(picker_->selectedKeys(), ElementsAre(PeerKey("key 1")));
    EXPECT_EQ(sendTitle(), "Send");
    EXPECT_TRUE(picker_->sendButton()->isEnabled());
}

TEST_F(SharePickerViewTest, CannotSendOnceTheOnlyChosenPhoneIsTakenOff) {
    show(phones(2));
    click(&row(0));
    EXPECT_FALSE(row(0).isOn());
    EXPECT_FALSE(picker_->sendButton()->isEnabled());
    EXPECT_EQ(sendTitle(), "Send");
    keepPicture("picker-nothing-chosen");
    click(picker_->sendButton());
    key(Qt::Key_Return);
    EXPECT_EQ(sent_, std::nullopt);
    click(&row(0));
    EXPECT_TRUE(picker_->sendButton()->isEnabled());
}

TEST_F(SharePickerViewTest, CountsTheChosenPhonesInTheTitleOfItsButton) {
    show(phones(3));
    click(&row(2));
    EXPECT_EQ(sendTitle(), "Send to 2");
    click(&row(1));
    EXPECT_EQ(sendTitle(), "Send to 3");
    keepPicture("picker-send-to-3");
    click(&row(0));
    EXPECT_EQ(sendTitle(), "Send to 2");
    click(&row(1));
    EXPECT_EQ(sendTitle(), "Send");
    click(picker_->sendButton());
    EXPECT_THAT(sent_, Optional(ElementsAre(PeerKey("key 3"))));
}

TEST_F(SharePickerViewTest, SendsTheKeysInTheOrderOfTheList) {
    show(phones(3));
    click(&row(0));
    click(&row(2));
    click(&row(1));
    click(&row(0));
    click(picker_->sendButton());
    EXPECT_THAT(sent_, Optional(ElementsAre(PeerKey("key 1"), PeerKey("key 2"), PeerKey("key 3"))));
}

TEST_F(SharePickerViewTest, CallsBackWithTheNewStateOfARow) {
    PhoneRow one({.hostname = "Pixel-8", .pubkey = PeerKey("k"), .subtitle = "s"}, true, nullptr);
    std::vector<bool> states;
    one.onToggle = [&states](bool isOn) { states.push_back(isOn); };
    one.tap();
    one.tap();
    EXPECT_THAT(states, ElementsAre(false, true));
    EXPECT_TRUE(one.isOn());
    EXPECT_EQ(one.peerKey(), PeerKey("k"));
}

TEST_F(SharePickerViewTest, LooksDifferentWhenARowIsOn) {
    show(phones(2));
    const QImage on = row(0).grab().toImage();
    row(0).tap();
    EXPECT_NE(row(0).grab().toImage(), on);
    row(0).tap();
    EXPECT_EQ(row(0).grab().toImage(), on);
}

TEST_F(SharePickerViewTest, IsOperatedByTheKeyboardAlone) {
    show(phones(3));
    EXPECT_EQ(QApplication::focusWidget(), &row(0));
    key(Qt::Key_Down);
    EXPECT_EQ(QApplication::focusWidget(), &row(1));
    keepPicture("picker-focus");
    key(Qt::Key_Space);
    EXPECT_TRUE(row(1).isOn());
    key(Qt::Key_Down);
    key(Qt::Key_Down);
    EXPECT_EQ(QApplication::focusWidget(), &row(2)) << "the last row is the last";
    key(Qt::Key_Home);
    EXPECT_EQ(QApplication::focusWidget(), &row(0));
    key(Qt::Key_Up);
    EXPECT_EQ(QApplication::focusWidget(), &row(0));
    key(Qt::Key_Space);
    EXPECT_FALSE(row(0).isOn());
    key(Qt::Key_End);
    EXPECT_EQ(QApplication::focusWidget(), &row(2));
    key(Qt::Key_Up);
    EXPECT_EQ(QApplication::focusWidget(), &row(1));
    key(Qt::Key_Return);
    EXPECT_THAT(sent_, Optional(ElementsAre(PeerKey("key 2"))));
    EXPECT_EQ(cancels_, 0);
}

TEST_F(SharePickerViewTest, GoesThroughTheRowsThenCancelThenSendByTab) {
    show(phones(2));
    const std::vector<QWidget*> order{&row(1), picker_->cancelButton(), picker_->sendButton(), &row(0)};
    for (QWidget* const next : order) {
        key(Qt::Key_Tab);
        EXPECT_EQ(QApplication::focusWidget(), next);
    }
    key(Qt::Key_Backtab, Qt::ShiftModifier);
    EXPECT_EQ(QApplication::focusWidget(), picker_->sendButton());
    key(Qt::Key_Space);
    EXPECT_THAT(sent_, Optional(ElementsAre(PeerKey("key 1"))));
}

TEST_F(SharePickerViewTest, SetsTheRingOfTheKeyboardApartFromWhatIsChosen) {
    show(phones(2));
    key(Qt::Key_Tab);
    key(Qt::Key_Space);
    key(Qt::Key_Tab);
    key(Qt::Key_Tab);
    ASSERT_EQ(QApplication::focusWidget(), picker_->sendButton());
    const auto colorInside = [this](QWidget* widget, int depth) {
        const QRect at = place(widget);
        return window_->grab().toImage().pixel(at.left() + depth, at.center().y());
    };
    const SheetColors colors = SheetColors::of(window_->palette());
    EXPECT_EQ(colorInside(picker_->sendButton(), 0), colors.accentMark.rgb());
    EXPECT_EQ(colorInside(picker_->sendButton(), 3), colors.window.rgb());
    EXPECT_EQ(colorInside(picker_->sendButton(), 5), colors.accent.rgb());
    keepPicture("picker-focus-send");
    key(Qt::Key_Tab);
    key(Qt::Key_Tab);
    ASSERT_EQ(QApplication::focusWidget(), &row(1));
    ASSERT_TRUE(row(1).isOn());
    EXPECT_EQ(colorInside(&row(1), 1), colors.accentMark.rgb());
    EXPECT_EQ(colorInside(&row(1), 3), colors.window.rgb());
    EXPECT_EQ(colorInside(&row(0), 3), colors.selectedCard.rgb()) << "without the keyboard";
    keepPicture("picker-focus-chosen");
}

TEST_F(SharePickerViewTest, KeepsTheRingWhenItsWindowIsLeftAndComeBackTo) {
    show(phones(2));
    const auto leaveAndComeBack = [](QWidget* widget) {
        QFocusEvent away(QEvent::FocusOut, Qt::ActiveWindowFocusReason);
        QApplication::sendEvent(widget, &away);
        QFocusEvent back(QEvent::FocusIn, Qt::ActiveWindowFocusReason);
        QApplication::sendEvent(widget, &back);
    };
    const QImage without = window_->grab().toImage();
    leaveAndComeBack(&row(0));
    EXPECT_EQ(window_->grab().toImage(), without);
    key(Qt::Key_Tab);
    const QImage onRow = window_->grab().toImage();
    EXPECT_NE(onRow, without);
    leaveAndComeBack(&row(1));
    EXPECT_EQ(window_->grab().toImage(), onRow);
    key(Qt::Key_Tab);
    const QImage onButton = window_->grab().toImage();
    leaveAndComeBack(picker_->cancelButton());
    EXPECT_EQ(window_->grab().toImage(), onButton);
}

TEST_F(SharePickerViewTest, CancelsByItsButtonAndByEscape) {
    show(phones(2));
    click(picker_->cancelButton());
    EXPECT_EQ(cancels_, 1);
    key(Qt::Key_Escape);
    EXPECT_EQ(dismissals_, 1);
    picker_->cancelButton()->setFocus();
    key(Qt::Key_Enter);
    EXPECT_EQ(cancels_, 2) << "Enter on Cancel is no way to send";
    EXPECT_EQ(sent_, std::nullopt);
}

TEST_F(SharePickerViewTest, AsksBeforeItsWindowIsClosed) {
    show(phones(2));
    window_->close();
    EXPECT_EQ(dismissals_, 1);
    EXPECT_TRUE(window_->isVisible());
}

TEST_F(SharePickerViewTest, OffersOnlyToCancelWithoutPhones) {
    show({});
    EXPECT_EQ(picker_->sendButton(), nullptr);
    EXPECT_TRUE(picker_->rows().empty());
    QStringList texts;
    for (const QWidget* const widget : picker_->findChildren<QWidget*>()) {
        texts << widget->accessibleName();
    }
    EXPECT_TRUE(texts.contains(QStringLiteral("No paired device")));
    EXPECT_TRUE(texts.contains(QStringLiteral("Pair a phone in Orlinth, then try again.")));
    EXPECT_EQ(QApplication::focusWidget(), picker_->cancelButton());
    EXPECT_EQ(picker_->cancelButton()->accessibleDescription().toStdString(),
              "No paired device. Pair a phone in Orlinth, then try again.");
    key(Qt::Key_Space);
    EXPECT_EQ(cancels_, 1);
}

TEST_F(SharePickerViewTest, ShowsTheRowThatTheKeyboardIsOn) {
    show(phones(9));
    const auto isSeen = [this](std::size_t at) {
        const QRect body = place(picker_->scrollArea());
        return body.contains(place(&row(at)));
    };
    EXPECT_TRUE(isSeen(3));
    EXPECT_FALSE(isSeen(4));
    for (int i = 0; i < 8; ++i) {
        key(Qt::Key_Down);
    }
    EXPECT_TRUE(isSeen(8));
    EXPECT_FALSE(isSeen(0));
    keepPicture("picker-9-end");
    key(Qt::Key_Space);
    EXPECT_EQ(sendTitle(), "Send to 2");
    key(Qt::Key_Home);
    EXPECT_TRUE(isSeen(0));
    key(Qt::Key_Backtab, Qt::ShiftModifier);
    key(Qt::Key_Backtab, Qt::ShiftModifier);
    key(Qt::Key_Backtab, Qt::ShiftModifier);
    EXPECT_EQ(QApplication::focusWidget(), &row(8));
    EXPECT_TRUE(isSeen(8)) << "by Tab too";
}

TEST_F(SharePickerViewTest, TellsAScreenReaderWhatIsThere) {
    show(phones(2));
    QAccessibleInterface* const first = QAccessible::queryAccessibleInterface(&row(0));
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(first->role(), QAccessible::CheckBox);
    EXPECT_EQ(first->text(QAccessible::Name).toStdString(), "Phone 1");
    EXPECT_EQ(first->text(QAccessible::Description).toStdString(), "192.168.1.1");
    EXPECT_TRUE(first->state().checkable);
    EXPECT_TRUE(first->state().checked);
    EXPECT_TRUE(first->state().focusable);
    EXPECT_TRUE(first->state().focused);
    ASSERT_NE(first->actionInterface(), nullptr);
    first->actionInterface()->doAction(QAccessibleActionInterface::toggleAction());
    EXPECT_FALSE(first->state().checked);
    EXPECT_FALSE(row(0).isOn());
    QAccessibleInterface* const send = QAccessible::queryAccessibleInterface(picker_->sendButton());
    EXPECT_EQ(send->role(), QAccessible::Button);
    EXPECT_EQ(send->text(QAccessible::Name).toStdString(), "Send");
    EXPECT_TRUE(send->state().disabled);
    first->actionInterface()->doAction(QAccessibleActionInterface::toggleAction());
    EXPECT_FALSE(send->state().disabled);
    EXPECT_EQ(QAccessible::queryAccessibleInterface(window_.get())->text(QAccessible::Name).toStdString(),
              "Share with Orlinth");
}

TEST_F(SharePickerViewTest, CutsLongNamesAndShowsThemWholeInATooltip) {
    const std::string longName = "Annegret's second-best telephone with a name that goes on and on and on";
    Peers peers = phones(4);
    peers[1].hostname = longName;
    peers[2].hostname = "הטלפון של אנה עם שם ארוך מאוד שלא נגמר לעולם ועד";
    peers[2].subtitle = "<b>not bold</b> & " + std::string(80, 'x');
    peers[3].hostname = "👩‍👩‍👧‍👦 Ф\u0301\u0301\u0301\u0301ото 手机 هاتف";
    show(peers, 12, QStringLiteral("A picture with a very long name indeed, of the summer of 2026.jpeg"));
    EXPECT_TRUE(row(0).toolTip().isEmpty());
    EXPECT_TRUE(row(1).toolTip().contains(QString::fromStdString(longName).toHtmlEscaped()));
    EXPECT_TRUE(row(2).toolTip().contains(QStringLiteral("&lt;b&gt;not bold&lt;/b&gt; &amp; ")));
    EXPECT_TRUE(row(3).toolTip().isEmpty());
    EXPECT_EQ(row(1).hostname().toStdString(), longName);
    QStringList toolTips;
    QStringList texts;
    for (const QWidget* const widget : picker_->findChildren<QWidget*>()) {
        toolTips << widget->toolTip();
        texts << widget->accessibleName();
        EXPECT_LE(widget->mapTo(window_.get(), QPoint(0, 0)).x() + widget->width(), 400);
    }
    EXPECT_EQ(toolTips.filter(QStringLiteral("summer of 2026")).size(), 1);
    EXPECT_TRUE(texts.contains(QStringLiteral("12 files")));
    keepPicture("picker-long-names");
}

TEST_F(SharePickerViewTest, CountsOneFileAsOne) {
    show(phones(2), 1);
    QStringList texts;
    for (const QWidget* const widget : picker_->findChildren<QWidget*>()) {
        texts << widget->accessibleName();
    }
    EXPECT_TRUE(texts.contains(QStringLiteral("1 file")));
    EXPECT_TRUE(texts.contains(QStringLiteral("holiday.jpg")));
    EXPECT_TRUE(texts.contains(QStringLiteral("ann-laptop")));
    EXPECT_TRUE(texts.contains(QStringLiteral("Orlinth")));
}

TEST_F(SharePickerViewTest, TurnsDarkWithTheDesktopWhileItIsShown) {
    show(phones(5));
    const QImage light = window_->grab().toImage();
    EXPECT_GT(light.pixelColor(2, 2).lightness(), 200);
    QApplication::setPalette(sheetPalette(true));
    QApplication::processEvents();
    const QImage dark = window_->grab().toImage();
    EXPECT_LT(dark.pixelColor(2, 2).lightness(), 60);
    EXPECT_LT(dark.pixelColor(200, 70).lightness(), 60) << "between the rows";
    keepPicture("picker-5-dark");
}

TEST_F(SharePickerViewTest, ShowsAStatusAsOneLine) {
    ShareStatusView status(QStringLiteral("Sending to phone…"));
    EXPECT_EQ(status.text().toStdString(), "Sending to phone…");
    EXPECT_EQ(ShareStatusView::contentHeight, 84);
    status.resize(400, 84);
    EXPECT_TRUE(status.grab().save(QStringLiteral(ORLINTH_TEST_PICTURES "/status.png")));
}

TEST_F(SharePickerViewTest, MakesRoomForALongFailure) {
    const ShareFailureView brief(QStringLiteral("Could not read the shared file(s)"));
    const ShareFailureView lengthy(QString(QStringLiteral("Could not write manifest: ")) + QString(400, u'x'));
    const ShareFailureView endless(QString(40000, u'x'));
    EXPECT_GT(lengthy.contentHeight(), brief.contentHeight());
    EXPECT_LT(endless.contentHeight(), 400);
    EXPECT_TRUE(lengthy.toolTip().contains(QString(400, u'x')));
}

} // namespace
} // namespace orlinth::share
