#pragma once

#include "OrlinthShare/SheetLook.h"

#include <QPushButton>
#include <QTimer>
#include <QWidget>

namespace orlinth::share {

/// One line of text that is cut where it is too long; a tooltip then has all of it.
class ElidedLabel : public QWidget {
public:
    ElidedLabel(QString text, const QFont& font, Qt::TextElideMode mode, Qt::Alignment alignment, bool isSecondary,
                QWidget* parent);

    [[nodiscard]] const QString& text() const noexcept { return text_; }
    [[nodiscard]] QSize sizeHint() const override;
    [[nodiscard]] QSize minimumSizeHint() const override;

protected:
    void paintEvent(QPaintEvent* event) override;
    void resizeEvent(QResizeEvent* event) override;

private:
    QString text_;
    Qt::TextElideMode mode_;
    Qt::Alignment alignment_;
    bool isSecondary_;
};

/// A button as the sheet has them. Space and Enter press it.
class SheetButton : public QPushButton {
public:
    enum class Role { primary, plain };
    SheetButton(const QString& text, Role role, QWidget* parent);

    [[nodiscard]] QSize sizeHint() const override;

protected:
    void paintEvent(QPaintEvent* event) override;
    void keyPressEvent(QKeyEvent* event) override;
    void focusInEvent(QFocusEvent* event) override;
    void enterEvent(QEnterEvent* event) override;
    void leaveEvent(QEvent* event) override;

private:
    Role role_;
    bool isFocusShown_ = false;
};

/// Says that something is going on. Begins to turn only after a while: what takes a moment should not flicker.
class BusySign : public QWidget {
public:
    explicit BusySign(QWidget* parent);

    [[nodiscard]] QSize sizeHint() const override;

protected:
    void paintEvent(QPaintEvent* event) override;
    void showEvent(QShowEvent* event) override;
    void hideEvent(QHideEvent* event) override;

private:
    QTimer timer_;
    int angle_ = 0;
};

/// Whether the ring around the focus is wanted: where the keyboard brought it, and as before (`wasShown`) where it
/// comes back with the window.
[[nodiscard]] bool isFocusToBeShown(Qt::FocusReason reason, bool wasShown) noexcept;

} // namespace orlinth::share
