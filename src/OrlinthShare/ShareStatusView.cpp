#include "OrlinthShare/ShareStatusView.h"

#include "OrlinthShare/SharePickerView.h"

#include <QFontMetrics>
#include <QHBoxLayout>
#include <QPainter>
#include <algorithm>

namespace orlinth::share {
namespace {

constexpr int textPixels = 14;
constexpr int sideMargin = 20;
constexpr int topMargin = 20;
constexpr int signSize = 24;
constexpr int signGap = 12;
constexpr int buttonArea = 58;
constexpr int messageFlags = Qt::AlignLeft | Qt::AlignTop | Qt::TextWordWrap | Qt::TextWrapAnywhere;
/// A reason of the system's is a line or two; one that never ends must not fill the screen.
constexpr int mostMessageHeight = 240;

} // namespace

ShareStatusView::ShareStatusView(const QString& text) : text_(text) {
    setFixedHeight(contentHeight);
    setAccessibleName(text);
    auto* label = new ElidedLabel(text, sheetFont(textPixels, QFont::Medium), Qt::ElideRight,
                                  Qt::AlignLeft | Qt::AlignVCenter, false, this);
    auto* line = new QHBoxLayout(this);
    line->setContentsMargins(sideMargin, 0, sideMargin, 0);
    line->setSpacing(signGap);
    line->addStretch();
    line->addWidget(new BusySign(this));
    line->addWidget(label);
    line->addStretch();
}

ShareFailureView::ShareFailureView(const QString& message) : message_(message) {
    const QFontMetrics metrics(sheetFont(textPixels));
    const int needed = metrics.boundingRect(messageArea(mostMessageHeight), messageFlags, message_).height();
    contentHeight_ = topMargin + std::clamp(needed, signSize, mostMessageHeight) + signGap + buttonArea;
    setFixedHeight(contentHeight_);
    setAccessibleName(message_);
    setToolTip(plainToolTip(message_));
    closeButton_ = new SheetButton(QStringLiteral("Close"), SheetButton::Role::primary, this);
    closeButton_->setAccessibleDescription(message_); // read out with the button, which has the focus
    connect(closeButton_, &QAbstractButton::clicked, this, [this] {
        if (onClose) {
            onClose();
        }
    });
    auto* line = new QHBoxLayout(this);
    line->setContentsMargins(sideMargin, contentHeight_ - buttonArea, sideMargin - 2, 8);
    line->addStretch();
    line->addWidget(closeButton_);
}

QRect ShareFailureView::messageArea(int height) {
    const int left = sideMargin + signSize + signGap;
    return {left, topMargin, SharePickerView::sheetWidth - left - sideMargin, height};
}

void ShareFailureView::paintEvent(QPaintEvent* /*event*/) {
    const SheetColors colors = SheetColors::of(palette());
    QPainter painter(this);
    paintSymbol(painter, Symbol::warning, QRectF(sideMargin, topMargin - 3, signSize, signSize), colors.warning);
    painter.setFont(sheetFont(textPixels));
    painter.setPen(colors.text);
    const int height = contentHeight_ - topMargin - signGap - buttonArea;
    painter.drawText(messageArea(height), messageFlags, message_);
}

void ShareFailureView::showEvent(QShowEvent* event) {
    QWidget::showEvent(event);
    closeButton_->setFocus(Qt::OtherFocusReason);
}

} // namespace orlinth::share
