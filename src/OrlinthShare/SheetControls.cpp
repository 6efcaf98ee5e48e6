#include "OrlinthShare/SheetControls.h"

#include <QFocusEvent>
#include <QKeyEvent>
#include <QPainter>
#include <QStyle>
#include <algorithm>
#include <chrono>
#include <cmath>
#include <utility>

namespace orlinth::share {
namespace {

constexpr int buttonHeight = 34;
constexpr int buttonLeastWidth = 92;
constexpr int buttonTextPixels = 14;
constexpr double buttonRadius = 9;
constexpr int signPixels = 22;
constexpr std::chrono::milliseconds signInterval{33};
constexpr std::chrono::milliseconds signDelay{600};
constexpr int signStep = 12; // degrees

} // namespace

bool isFocusToBeShown(Qt::FocusReason reason, bool wasShown) noexcept {
    if (reason == Qt::ActiveWindowFocusReason || reason == Qt::PopupFocusReason) {
        return wasShown;
    }
    return reason == Qt::TabFocusReason || reason == Qt::BacktabFocusReason || reason == Qt::ShortcutFocusReason;
}

ElidedLabel::ElidedLabel(QString text, const QFont& font, Qt::TextElideMode mode, Qt::Alignment alignment,
                         bool isSecondary, QWidget* parent)
    : QWidget(parent), text_(std::move(text)), mode_(mode), alignment_(alignment), isSecondary_(isSecondary) {
    setFont(font);
    setAccessibleName(text_);
    setSizePolicy(QSizePolicy::Preferred, QSizePolicy::Fixed);
}

QSize ElidedLabel::sizeHint() const {
    const QFontMetricsF metrics(font());
    return {static_cast<int>(std::ceil(metrics.horizontalAdvance(text_))) + 1,
            static_cast<int>(std::ceil(metrics.height()))};
}

QSize ElidedLabel::minimumSizeHint() const {
    return {0, sizeHint().height()};
}

void ElidedLabel::paintEvent(QPaintEvent* /*event*/) {
    const SheetColors colors = SheetColors::of(palette());
    QPainter painter(this);
    painter.setFont(font());
    painter.setPen(isSecondary_ ? colors.secondaryText : colors.text);
    paintLine(painter, rect(), text_, mode_, alignment_);
}

void ElidedLabel::resizeEvent(QResizeEvent* event) {
    QWidget::resizeEvent(event);
    setToolTip(isCut(font(), text_, mode_, width()) ? plainToolTip(text_) : QString());
}

SheetButton::SheetButton(const QString& text, Role role, QWidget* parent) : QPushButton(text, parent), role_(role) {
    setFocusPolicy(Qt::StrongFocus);
    setAutoDefault(false);
    setFont(sheetFont(buttonTextPixels, role == Role::primary ? QFont::DemiBold : QFont::Medium));
    setSizePolicy(QSizePolicy::Fixed, QSizePolicy::Fixed);
}

QSize SheetButton::sizeHint() const {
    constexpr int margins = 36;
    const int text = QFontMetrics(font()).horizontalAdvance(this->text());
    return {std::max(buttonLeastWidth, text + margins), buttonHeight};
}

void SheetButton::paintEvent(QPaintEvent* /*event*/) {
    const SheetColors colors = SheetColors::of(palette());
    const bool isPrimary = role_ == Role::primary && isEnabled();
    QColor fill = isPrimary ? colors.accent : colors.control;
    if (isEnabled() && (isDown() || underMouse())) {
        fill = colors.shifted(fill, isDown() ? 2 : 1);
    }
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setPen(Qt::NoPen);
    painter.setBrush(fill);
    const bool hasRing = hasFocus() && isFocusShown_;
    // some room is left around it for the ring, which has the colour of a primary button itself
    const double room = hasRing ? 4 : 2;
    const QRectF body = QRectF(rect()).adjusted(room, room, -room, -room);
    painter.drawRoundedRect(body, buttonRadius + 1 - room, buttonRadius + 1 - room);
    QColor ink = isPrimary ? colors.onAccent : colors.text;
    if (!isEnabled()) {
        ink = colors.secondaryText;
        ink.setAlphaF(0.6F);
    }
    painter.setPen(ink);
    painter.setFont(font());
    painter.drawText(body, int{Qt::AlignCenter}, text());
    if (hasRing) {
        paintFocusRing(painter, QRectF(rect()).adjusted(-0.5, -0.5, 0.5, 0.5), buttonRadius + 1, colors);
    }
}

void SheetButton::keyPressEvent(QKeyEvent* event) {
    if (event->key() == Qt::Key_Return || event->key() == Qt::Key_Enter) {
        if (!event->isAutoRepeat()) { // a key that is still held down was not meant for what has come up meanwhile
            click();
        }
        return;
    }
    QPushButton::keyPressEvent(event);
}

void SheetButton::focusInEvent(QFocusEvent* event) {
    isFocusShown_ = isFocusToBeShown(event->reason(), isFocusShown_);
    QPushButton::focusInEvent(event);
}

void SheetButton::enterEvent(QEnterEvent* event) {
    QPushButton::enterEvent(event);
    update();
}

void SheetButton::leaveEvent(QEvent* event) {
    QPushButton::leaveEvent(event);
    update();
}

BusySign::BusySign(QWidget* parent) : QWidget(parent) {
    setFixedSize(signPixels, signPixels);
    connect(&timer_, &QTimer::timeout, this, [this] {
        timer_.setInterval(signInterval);
        angle_ = (angle_ + signStep) % 360;
        update();
    });
}

QSize BusySign::sizeHint() const {
    return {signPixels, signPixels};
}

void BusySign::paintEvent(QPaintEvent* /*event*/) {
    const SheetColors colors = SheetColors::of(palette());
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    const QRectF ring = QRectF(rect()).adjusted(2.5, 2.5, -2.5, -2.5);
    painter.setPen(QPen(colors.control, 3));
    painter.drawEllipse(ring);
    constexpr int sixteenths = 16; // drawArc counts in these of a degree
    painter.setPen(QPen(colors.accentMark, 3, Qt::SolidLine, Qt::RoundCap));
    painter.drawArc(ring, (90 - angle_) * sixteenths, -100 * sixteenths);
}

void BusySign::showEvent(QShowEvent* event) {
    QWidget::showEvent(event);
    // a desktop that is set to show no movement says so here
    if (style()->styleHint(QStyle::SH_Widget_Animation_Duration, nullptr, this) > 0) {
        timer_.start(signDelay);
    }
}

void BusySign::hideEvent(QHideEvent* event) {
    timer_.stop();
    QWidget::hideEvent(event);
}

} // namespace orlinth::share
