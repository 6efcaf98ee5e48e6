#pragma once

#include "OrlinthCore/Share/ShareOutbox.h"

#include <QAbstractButton>
#include <QString>
#include <functional>
#include <string>

namespace orlinth::share {

/// One phone of the picker: a check box with the phone's name, a second line, and a mark that says whether it is
/// chosen.
///
/// Click and Space toggle it; Up, Down, Home and End ask for another row.
class PhoneRow : public QAbstractButton {
public:
    static constexpr int rowHeight = 52; ///< device-independent pixels
    enum class Move { previous, next, first, last };

    PhoneRow(const ShareOutbox::SharePeer& peer, bool isOn, QWidget* parent);

    [[nodiscard]] const QString& hostname() const noexcept { return hostname_; }
    [[nodiscard]] const QString& subtitle() const noexcept { return subtitle_; }
    [[nodiscard]] const PeerKey& peerKey() const noexcept { return peerKey_; }
    [[nodiscard]] bool isOn() const { return isChecked(); }

    /// What a click does.
    void tap() { click(); }

    std::function<void(bool isOn)> onToggle;
    std::function<void(Move)> onMove;
    /// The keyboard has come to the row.
    std::function<void()> onFocus;

    [[nodiscard]] QSize sizeHint() const override;

protected:
    void paintEvent(QPaintEvent* event) override;
    void keyPressEvent(QKeyEvent* event) override;
    void focusInEvent(QFocusEvent* event) override;
    void enterEvent(QEnterEvent* event) override;
    void leaveEvent(QEvent* event) override;
    void resizeEvent(QResizeEvent* event) override;

private:
    [[nodiscard]] QRectF textArea() const;

    QString hostname_;
    QString subtitle_;
    PeerKey peerKey_;
    bool isFocusShown_ = false;
};

} // namespace orlinth::share
