#pragma once

#include "OrlinthCore/Share/ShareOutbox.h"
#include "OrlinthShare/PhoneRow.h"
#include "OrlinthShare/SheetControls.h"

#include <QImage>
#include <QLabel>
#include <QScrollArea>
#include <QWidget>
#include <functional>
#include <set>
#include <string>
#include <vector>

namespace orlinth::share {

/// Lets the user choose which paired phones get the files; or says that there is none.
///
///     ┌──────────────────────────────────────┐
///     │ ◉ Orlinth              holiday.jpg ▯ │  header, 62
///     │   ann-laptop               3 files   │
///     ├──────────────────────────────────────┤
///     │ ▯ Pixel-8                          ● │  a row a phone, 52, with 8 between them;
///     │ ▯ Tablet                           ○ │  more than four are scrolled
///     ├──────────────────────────────────────┤
///     │                      Cancel   Send   │  footer, 56
///     └──────────────────────────────────────┘
///
/// Enter sends where that can be done; Tab goes through the rows, then Cancel, then Send.
class SharePickerView : public QWidget {
public:
    static constexpr int sheetWidth = 400; ///< as all lengths, in device-independent pixels
    static constexpr std::size_t mostVisibleRows = 4;
    static constexpr int emptyHeight = 216;

    /// `selected` are the keys of the phones that are on at first.
    SharePickerView(std::vector<ShareOutbox::SharePeer> peers, std::set<PeerKey> selected, QString computerName);

    /// Lays everything out. Once, before the view is shown.
    void build(std::size_t fileCount, const QString& firstFileName);
    /// What is shown for the first file; in a frame of 30 × 34.
    void setThumbnail(const QPixmap& picture);
    static constexpr QSize thumbnailSize{30, 34};

    /// The height for so many phones.
    [[nodiscard]] static int heightFor(std::size_t phones);
    [[nodiscard]] int contentHeight() const { return heightFor(peers_.size()); }

    /// The keys of the chosen phones, in the order of the list.
    [[nodiscard]] std::vector<PeerKey> selectedKeys() const;

    /// Called with selectedKeys(), at least one.
    std::function<void(std::vector<PeerKey>)> onSend;
    std::function<void()> onCancel;

    // What it is made of, for those who look at it.
    [[nodiscard]] const std::vector<PhoneRow*>& rows() const noexcept { return rows_; }
    [[nodiscard]] SheetButton* sendButton() const noexcept { return sendButton_; } ///< null without phones
    [[nodiscard]] SheetButton* cancelButton() const noexcept { return cancelButton_; }
    [[nodiscard]] QScrollArea* scrollArea() const noexcept { return scrollArea_; } ///< null without phones
    [[nodiscard]] QLabel* thumb() const noexcept { return thumb_; }

protected:
    void keyPressEvent(QKeyEvent* event) override;
    void changeEvent(QEvent* event) override;
    void showEvent(QShowEvent* event) override;

private:
    [[nodiscard]] QWidget* makeHeader(std::size_t fileCount, const QString& firstFileName);
    [[nodiscard]] QWidget* makeRows();
    [[nodiscard]] QWidget* makeEmptyState();
    [[nodiscard]] QWidget* makeFooter();
    [[nodiscard]] QPixmap badgePicture() const;
    void colorScrollBar();
    void toggle(const PeerKey& peerKey, bool isOn);
    void moveFocus(std::size_t from, PhoneRow::Move move);
    void updateSendTitle();
    void send();

    std::vector<ShareOutbox::SharePeer> peers_;
    std::set<PeerKey> selected_;
    QString computerName_;
    // owned by the layout
    std::vector<PhoneRow*> rows_;
    QScrollArea* scrollArea_ = nullptr;
    SheetButton* sendButton_ = nullptr;
    SheetButton* cancelButton_ = nullptr;
    QLabel* thumb_ = nullptr;
};

} // namespace orlinth::share
