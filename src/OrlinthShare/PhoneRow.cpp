#include "OrlinthShare/PhoneRow.h"

#include "OrlinthShare/SheetControls.h"
#include "OrlinthShare/SheetLook.h"

#include <QFocusEvent>
#include <QKeyEvent>
#include <QPainter>

namespace orlinth::share {
namespace {

constexpr double cornerRadius = 11;
constexpr double sideMargin = 12;
constexpr double phoneTile = 32;
constexpr double phoneSize = 20;
constexpr double markSize = 22;
constexpr double textGap = 12;
constexpr int hostnamePixels = 14;
constexpr int subtitlePixels = 12;

QFont hostnameFont() {
    return sheetFont(hostnamePixels, QFont::DemiBold);
}

QFont subtitleFont() {
    return sheetFont(subtitlePixels);
}

} // namespace

PhoneRow::PhoneRow(const ShareOutbox::SharePeer& peer, bool isOn, QWidget* parent)
    : QAbstractButton(parent),
      hostname_(oneLine(peer.hostname)),
      subtitle_(oneLine(peer.subtitle)),
      peerKey_(peer.pubkey) {
    setCheckable(true);
    setChecked(isOn);
    setFixedHeight(rowHeight);
    setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);
    setFocusPolicy(Qt::StrongFocus);
    setAttribute(Qt::WA_Hover);
    setAccessibleName(hostname_);
    setAccessibleDescription(subtitle_);
    connect(this, &QAbstractButton::toggled, this, [this](bool isNowOn) {
        update();
        if (onToggle) {
            onToggle(isNowOn);
        }
    });
}

QSize PhoneRow::sizeHint() const {
    return {368, rowHeight};
}

QRectF PhoneRow::textArea() const {
    const double left = sideMargin + phoneTile + textGap;
    return {left, 0, width() - left - textGap - markSize - sideMargin, static_cast<double>(height())};
}

void PhoneRow::paintEvent(QPaintEvent* /*event*/) {
    const SheetColors colors = SheetColors::of(palette());
    QColor fill = isOn() ? colors.selectedCard : colors.card;
    if (isDown() || underMouse()) {
        fill = colors.shifted(fill, isDown() ? 2 : 1);
    }
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    const bool hasRing = hasFocus() && isFocusShown_;
    // a row that is on has an edge of the ring's colour: there is to be a gap between the two
    const double inset = hasRing ? 4.75 : 0.75;
    const QRectF card = QRectF(rect()).adjusted(inset, inset, -inset, -inset);
    painter.setPen(QPen(isOn() ? colors.accentMark : colors.cardBorder, isOn() ? 1.5 : 1));
    painter.setBrush(fill);
    painter.drawRoundedRect(card, cornerRadius + 0.75 - inset, cornerRadius + 0.75 - inset);

    const QRectF tile(sideMargin, (height() - phoneTile) / 2, phoneTile, phoneTile);
    painter.setPen(Qt::NoPen);
    painter.setBrush(isOn() ? colors.accent : colors.control);
    painter.drawRoundedRect(tile, 9, 9);
    const double edge = (phoneTile - phoneSize) / 2;
    paintSymbol(painter, Symbol::phone, tile.adjusted(edge, edge, -edge, -edge),
                isOn() ? colors.onAccent : colors.secondaryText);

    const QRectF mark(width() - sideMargin - markSize, (height() - markSize) / 2, markSize, markSize);
    paintSymbol(painter, isOn() ? Symbol::checkCircleFilled : Symbol::circle, mark,
                isOn() ? colors.accentMark : colors.secondaryText);

    const QRectF text = textArea();
    constexpr double firstLine = 8;
    constexpr double lineHeight = 19;
    const bool hasTwoLines = !subtitle_.isEmpty();
    painter.setFont(hostnameFont());
    painter.setPen(colors.text);
    paintLine(painter, hasTwoLines ? QRectF(text.left(), firstLine, text.width(), lineHeight) : text, hostname_,
              Qt::ElideRight);
    if (hasTwoLines) {
        painter.setFont(subtitleFont());
        painter.setPen(colors.secondaryText);
        paintLine(painter, QRectF(text.left(), firstLine + lineHeight, text.width(), 17), subtitle_, Qt::ElideRight);
    }
    if (hasRing) {
        paintFocusRing(painter, rect(), cornerRadius, colors);
    }
}

void PhoneRow::resizeEvent(QResizeEvent* event) {
    QAbstractButton::resizeEvent(event);
    const double room = textArea().width();
    const bool hidesSomething = isCut(hostnameFont(), hostname_, Qt::ElideRight, room) ||
                                isCut(subtitleFont(), subtitle_, Qt::ElideRight, room);
    setToolTip(hidesSomething
                   ? plainToolTip(subtitle_.isEmpty() ? hostname_ : hostname_ + QStringLiteral(" — ") + subtitle_)
                   : QString());
}

void PhoneRow::keyPressEvent(QKeyEvent* event) {
    const auto ask = [this](Move move) {
        if (onMove) {
            onMove(move);
        }
    };
    switch (event->key()) {
    case Qt::Key_Up:
        ask(Move::previous);
        break;
    case Qt::Key_Down:
        ask(Move::next);
        break;
    case Qt::Key_Home:
        ask(Move::first);
        break;
    case Qt::Key_End:
        ask(Move::last);
        break;
    case Qt::Key_Return:
    case Qt::Key_Enter:
        event->ignore(); // some desktops press buttons with it; here it sends
        break;
    default:
        QAbstractButton::keyPressEvent(event);
    }
}

void PhoneRow::focusInEvent(QFocusEvent* event) {
    isFocusShown_ = isFocusToBeShown(event->reason(), isFocusShown_);
    QAbstractButton::focusInEvent(event);
    if (isFocusShown_ && onFocus) {
        onFocus();
    }
}

void PhoneRow::enterEvent(QEnterEvent* event) {
    QAbstractButton::enterEvent(event);
    update();
}

void PhoneRow::leaveEvent(QEvent* event) {
    QAbstractButton::leaveEvent(event);
    update();
}

} // namespace orlinth::share
