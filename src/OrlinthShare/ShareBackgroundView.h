#pragma once

#include <QWidget>
#include <functional>

namespace orlinth::share {

/// The sheet's window: a background for the one view that is shown on it.
class ShareBackgroundView : public QWidget {
public:
    ShareBackgroundView();

    /// Called for Escape, and when the desktop asks the window to close; which it does not by itself.
    std::function<void()> onDismiss;

protected:
    void paintEvent(QPaintEvent* event) override;
    void keyPressEvent(QKeyEvent* event) override;
    void closeEvent(QCloseEvent* event) override;
};

} // namespace orlinth::share
