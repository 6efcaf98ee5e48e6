#include "OrlinthShare/SharePickerView.h"

#include <QEvent>
#include <QHBoxLayout>
#include <QIcon>
#include <QKeyEvent>
#include <QPainter>
#include <QPainterPath>
#include <QScrollBar>
#include <QVBoxLayout>
#include <algorithm>
#include <utility>

namespace orlinth::share {
namespace {

constexpr int headerHeight = 62;
constexpr int lineHeight = 1;
constexpr int footerHeight = 56;
constexpr int rowGap = 8;
constexpr int bodyMargin = 12;
constexpr int sideMargin = 16;
constexpr int scrollBarWidth = 10;
constexpr int badgeSize = 36;
constexpr int ownNamesWidth = 140;
constexpr int titlePixels = 15;
constexpr int smallPixels = 12;
constexpr int filePixels = 13;

static_assert(SharePickerView::emptyHeight > headerHeight + footerHeight + 2 * lineHeight);

/// A thin line across the sheet.
class Separator : public QWidget {
public:
    explicit Separator(QWidget* parent) : QWidget(parent) { setFixedHeight(lineHeight); }

protected:
    void paintEvent(QPaintEvent* /*event*/) override {
        QPainter painter(this);
        painter.fillRect(rect(), SheetColors::of(palette()).separator);
    }
};

/// Two labels, one under the other, in the middle of the height.
QVBoxLayout* stacked(QWidget* first, QWidget* second) {
    auto* column = new QVBoxLayout; // owned by the layout that it is added to
    column->setContentsMargins(0, 0, 0, 0);
    column->setSpacing(1);
    column->addStretch();
    column->addWidget(first);
    column->addWidget(second);
    column->addStretch();
    return column;
}

QString emptyTitle() {
    return QStringLiteral("No paired device");
}

QString emptyAdvice() {
    return QStringLiteral("Pair a phone in Orlinth, then try again.");
}

QString countOfFiles(std::size_t count) {
    return count == 1 ? QStringLiteral("1 file") : QString::number(count) + QStringLiteral(" files");
}

QString cssOf(const QColor& color) {
    return color.name(QColor::HexRgb);
}

} // namespace

SharePickerView::SharePickerView(std::vector<ShareOutbox::SharePeer> peers, std::set<PeerKey> selected,
                                 QString computerName)
    : peers_(std::move(peers)), selected_(std::move(selected)), computerName_(std::move(computerName)) {}

int SharePickerView::heightFor(std::size_t phones) {
    if (phones == 0) {
        return emptyHeight;
    }
    const int rows = static_cast<int>(std::min(phones, mostVisibleRows));
    return (rows - 1) * rowGap + rows * PhoneRow::rowHeight + 2 * bodyMargin + (headerHeight + lineHeight) +
           lineHeight + footerHeight;
}

void SharePickerView::build(std::size_t fileCount, const QString& firstFileName) {
    auto* sheet = new QVBoxLayout(this);
    sheet->setContentsMargins(0, 0, 0, 0);
    sheet->setSpacing(0);
    sheet->addWidget(makeHeader(fileCount, firstFileName));
    sheet->addWidget(new Separator(this));
    sheet->addWidget(peers_.empty() ? makeEmptyState() : makeRows(), 1);
    sheet->addWidget(new Separator(this));
    sheet->addWidget(makeFooter());
    updateSendTitle();
}

QPixmap SharePickerView::badgePicture() const {
    const QIcon brand(QStringLiteral(":/orlinth-menubar.svg"));
    const qreal ratio = devicePixelRatioF();
    if (const QPixmap picture = brand.pixmap(QSize(badgeSize, badgeSize), ratio); !picture.isNull()) {
        return picture;
    }
    // without the reader of SVG files
    QPixmap drawn(QSize(badgeSize, badgeSize) * ratio);
    drawn.setDevicePixelRatio(ratio);
    drawn.fill(Qt::transparent);
    const SheetColors colors = SheetColors::of(palette());
    QPainter painter(&drawn);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setPen(Qt::NoPen);
    painter.setBrush(colors.accent);
    painter.drawRoundedRect(QRectF(0, 0, badgeSize, badgeSize), 10, 10);
    paintSymbol(painter, Symbol::radioWaves, QRectF(6, 6, badgeSize - 12, badgeSize - 12), colors.onAccent);
    return drawn;
}

QWidget* SharePickerView::makeHeader(std::size_t fileCount, const QString& firstFileName) {
    auto* header = new QWidget(this);
    header->setFixedHeight(headerHeight);
    auto* badge = new QLabel(header);
    badge->setFixedSize(badgeSize, badgeSize);
    badge->setPixmap(badgePicture());
    const Qt::Alignment left = Qt::AlignLeft | Qt::AlignVCenter;
    const Qt::Alignment right = Qt::AlignRight | Qt::AlignVCenter;
    auto* title = new ElidedLabel(QStringLiteral("Orlinth"), sheetFont(titlePixels, QFont::DemiBold), Qt::ElideRight,
                                  left, false, header);
    auto* computer = new ElidedLabel(computerName_, sheetFont(smallPixels), Qt::ElideRight, left, true, header);
    auto* file =
        new ElidedLabel(firstFileName, sheetFont(filePixels, QFont::Medium), Qt::ElideMiddle, right, false, header);
    auto* count = new ElidedLabel(countOfFiles(fileCount), sheetFont(smallPixels), Qt::ElideRight, right, true, header);
    thumb_ = new QLabel(header);
    thumb_->setFixedSize(thumbnailSize);
    thumb_->setAlignment(Qt::AlignCenter);

    auto* line = new QHBoxLayout(header);
    line->setContentsMargins(sideMargin, 0, sideMargin, 0);
    line->setSpacing(10);
    line->addWidget(badge);
    // what is shared has the room that the sheet's own names leave
    title->setMaximumWidth(ownNamesWidth);
    computer->setMaximumWidth(ownNamesWidth);
    line->addLayout(stacked(title, computer));
    line->addLayout(stacked(file, count), 1);
    line->addWidget(thumb_);
    return header;
}

QWidget* SharePickerView::makeRows() {
    const bool isScrolled = peers_.size() > mostVisibleRows;
    auto* list = new QWidget;
    auto* column = new QVBoxLayout(list);
    // the scroll bar stands in the margin, so that the rows are as wide with it as without
    column->setContentsMargins(sideMargin, bodyMargin, isScrolled ? sideMargin - scrollBarWidth : sideMargin,
                               bodyMargin);
    column->setSpacing(rowGap);
    for (const ShareOutbox::SharePeer& peer : peers_) {
        auto* row = new PhoneRow(peer, selected_.contains(peer.pubkey), list);
        row->onToggle = [this, key = peer.pubkey](bool isOn) { toggle(key, isOn); };
        row->onMove = [this, at = rows_.size()](PhoneRow::Move move) { moveFocus(at, move); };
        row->onFocus = [this, row] { scrollArea_->ensureWidgetVisible(row, 0, bodyMargin); };
        rows_.push_back(row);
        column->addWidget(row);
    }
    scrollArea_ = new QScrollArea(this);
    scrollArea_->setFrameShape(QFrame::NoFrame);
    scrollArea_->setFocusPolicy(Qt::NoFocus);
    scrollArea_->setWidgetResizable(true);
    scrollArea_->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    scrollArea_->setVerticalScrollBarPolicy(isScrolled ? Qt::ScrollBarAlwaysOn : Qt::ScrollBarAlwaysOff);
    scrollArea_->setWidget(list);
    scrollArea_->setAccessibleName(QStringLiteral("Phones"));
    scrollArea_->verticalScrollBar()->setSingleStep((PhoneRow::rowHeight + rowGap) / 3);
    // the sheet's own background shows through
    scrollArea_->viewport()->setAutoFillBackground(false);
    list->setAutoFillBackground(false);
    colorScrollBar();
    return scrollArea_;
}

void SharePickerView::colorScrollBar() {
    if (scrollArea_ == nullptr) {
        return;
    }
    const SheetColors colors = SheetColors::of(palette());
    scrollArea_->verticalScrollBar()->setStyleSheet(
        QStringLiteral("QScrollBar:vertical { background: transparent; width: %1px; margin: 4px 3px 4px 1px; }"
                       "QScrollBar::handle:vertical { background: %2; border-radius: 3px; min-height: 24px; }"
                       "QScrollBar::handle:vertical:hover { background: %3; }"
                       "QScrollBar::add-line, QScrollBar::sub-line { height: 0; }"
                       "QScrollBar::add-page, QScrollBar::sub-page { background: none; }")
            .arg(QString::number(scrollBarWidth), cssOf(colors.shifted(colors.control, 4)),
                 cssOf(colors.secondaryText)));
}

QWidget* SharePickerView::makeEmptyState() {
    auto* body = new QWidget(this);
    auto* what = new ElidedLabel(emptyTitle(), sheetFont(titlePixels, QFont::DemiBold), Qt::ElideRight, Qt::AlignCenter,
                                 false, body);
    auto* advice = new ElidedLabel(emptyAdvice(), sheetFont(filePixels), Qt::ElideRight, Qt::AlignCenter, true, body);
    QVBoxLayout* column = stacked(what, advice);
    column->setSpacing(4);
    column->setContentsMargins(sideMargin, 0, sideMargin, 0);
    body->setLayout(column);
    return body;
}

QWidget* SharePickerView::makeFooter() {
    auto* footer = new QWidget(this);
    footer->setFixedHeight(footerHeight);
    auto* line = new QHBoxLayout(footer);
    line->setContentsMargins(sideMargin - 2, 0, sideMargin - 2, 0);
    line->setSpacing(6);
    line->addStretch();
    cancelButton_ = new SheetButton(QStringLiteral("Cancel"), SheetButton::Role::plain, footer);
    connect(cancelButton_, &QAbstractButton::clicked, this, [this] {
        if (onCancel) {
            onCancel();
        }
    });
    line->addWidget(cancelButton_);
    if (peers_.empty()) {
        // read out with the button, which has the focus
        cancelButton_->setAccessibleDescription(emptyTitle() + QStringLiteral(". ") + emptyAdvice());
    } else {
        sendButton_ = new SheetButton(QStringLiteral("Send"), SheetButton::Role::primary, footer);
        connect(sendButton_, &QAbstractButton::clicked, this, [this] { send(); });
        line->addWidget(sendButton_);
    }
    return footer;
}

void SharePickerView::setThumbnail(const QPixmap& picture) {
    thumb_->setPixmap(picture);
}

std::vector<PeerKey> SharePickerView::selectedKeys() const {
    std::vector<PeerKey> keys;
    for (const ShareOutbox::SharePeer& peer : peers_) {
        if (selected_.contains(peer.pubkey) && std::ranges::find(keys, peer.pubkey) == keys.end()) {
            keys.push_back(peer.pubkey);
        }
    }
    return keys;
}

void SharePickerView::toggle(const PeerKey& peerKey, bool isOn) {
    if (isOn) {
        selected_.insert(peerKey);
    } else {
        selected_.erase(peerKey);
    }
    updateSendTitle();
}

void SharePickerView::updateSendTitle() {
    if (sendButton_ == nullptr) {
        return;
    }
    const std::size_t count = selected_.size();
    sendButton_->setText(count < 2 ? QStringLiteral("Send") : QStringLiteral("Send to ") + QString::number(count));
    sendButton_->setEnabled(count > 0);
    sendButton_->updateGeometry();
}

void SharePickerView::moveFocus(std::size_t from, PhoneRow::Move move) {
    const std::size_t last = rows_.size() - 1;
    std::size_t to = from;
    switch (move) {
    case PhoneRow::Move::previous:
        to = from == 0 ? 0 : from - 1;
        break;
    case PhoneRow::Move::next:
        to = std::min(from + 1, last);
        break;
    case PhoneRow::Move::first:
        to = 0;
        break;
    case PhoneRow::Move::last:
        to = last;
        break;
    }
    rows_[to]->setFocus(Qt::TabFocusReason);
}

void SharePickerView::send() {
    if (onSend && !selected_.empty()) {
        onSend(selectedKeys());
    }
}

void SharePickerView::keyPressEvent(QKeyEvent* event) {
    const bool isEnter = event->key() == Qt::Key_Return || event->key() == Qt::Key_Enter;
    if (isEnter && sendButton_ != nullptr && sendButton_->isEnabled()) {
        sendButton_->click();
        return;
    }
    QWidget::keyPressEvent(event);
}

void SharePickerView::changeEvent(QEvent* event) {
    QWidget::changeEvent(event);
    if (event->type() == QEvent::PaletteChange) {
        colorScrollBar();
    }
}

void SharePickerView::showEvent(QShowEvent* event) {
    QWidget::showEvent(event);
    if (rows_.empty()) {
        cancelButton_->setFocus(Qt::OtherFocusReason);
    } else {
        rows_.front()->setFocus(Qt::OtherFocusReason);
    }
}

} // namespace orlinth::share
