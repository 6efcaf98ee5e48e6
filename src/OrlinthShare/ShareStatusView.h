#pragma once

#include "OrlinthShare/SheetControls.h"

#include <QString>
#include <QWidget>
#include <functional>

namespace orlinth::share {

/// One line that says what is going on.
class ShareStatusView : public QWidget {
public:
    static constexpr int contentHeight = 84; ///< device-independent pixels

    explicit ShareStatusView(const QString& text);

    [[nodiscard]] const QString& text() const noexcept { return text_; }

private:
    QString text_;
};

/// Says why nothing was sent, and stays until it is closed: the error that goes back to the file manager is seen by
/// nobody.
class ShareFailureView : public QWidget {
public:
    explicit ShareFailureView(const QString& message);

    /// Enough for all of the message, in device-independent pixels.
    [[nodiscard]] int contentHeight() const noexcept { return contentHeight_; }
    [[nodiscard]] const QString& message() const noexcept { return message_; }
    [[nodiscard]] SheetButton* closeButton() const noexcept { return closeButton_; }

    std::function<void()> onClose;

protected:
    void paintEvent(QPaintEvent* event) override;
    void showEvent(QShowEvent* event) override;

private:
    [[nodiscard]] static QRect messageArea(int height);

    QString message_;
    int contentHeight_ = 0;
    SheetButton* closeButton_ = nullptr;
};

} // namespace orlinth::share
