#pragma once

#include <QColor>
#include <QFont>
#include <QPainter>
#include <QPalette>
#include <QRectF>
#include <QString>
#include <optional>
#include <string>

namespace orlinth::share {

/// The colours of the sheet, made from a palette, so that they go with a light or a dark desktop and with its accent.
struct SheetColors {
    bool isDark = false;
    QColor window;
    QColor text;
    QColor secondaryText;
    QColor separator;
    QColor card;       ///< what a row that is off is filled with
    QColor cardBorder; ///< and its edge
    QColor accent;
    QColor onAccent;     ///< text on it
    QColor accentMark;   ///< the accent as a line or a sign on the window's colour
    QColor selectedCard; ///< what a row that is on is filled with
    QColor control;      ///< what a plain button is filled with
    QColor warning;

    [[nodiscard]] static SheetColors of(const QPalette& palette);
    /// A slightly different colour, for something under the pointer (amount 1) or pressed (amount 2).
    [[nodiscard]] QColor shifted(const QColor& color, int amount) const;
};

/// How much two colours differ in brightness, 1 to 21 (WCAG 2.1, "contrast ratio"). 4.5 is enough for text.
[[nodiscard]] double contrastRatio(const QColor& a, const QColor& b);

/// The sheet's own palettes, for desktops that tell whether they are dark but bring no palette of their own.
[[nodiscard]] QPalette sheetPalette(bool dark);

/// A font of the system's family. `pixels` are device-independent.
[[nodiscard]] QFont sheetFont(int pixels, QFont::Weight weight = QFont::Normal);

enum class Symbol { phone, checkCircleFilled, circle, radioWaves, document, warning };

/// Draws a symbol so that it fills a square.
void paintSymbol(QPainter& painter, Symbol symbol, const QRectF& square, const QColor& color);

/// A name from elsewhere as one line: control characters are blanks, and marks that would turn the text around are left
/// out. Bytes that are not UTF-8 show as U+FFFD.
[[nodiscard]] QString oneLine(const std::string& text);

/// Draws one line in `rectangle`, cut with "…" where it is too long, in the direction of its script. Nothing is drawn
/// outside of it. Returns whether the text was cut.
bool paintLine(QPainter& painter, const QRectF& rectangle, const QString& text, Qt::TextElideMode mode,
               Qt::Alignment alignment = Qt::AlignLeft | Qt::AlignVCenter);

/// Whether a line that is drawn so would be cut.
[[nodiscard]] bool isCut(const QFont& font, const QString& text, Qt::TextElideMode mode, double width);

/// A tooltip that shows this text as it is, whatever is in it, in several lines if it is long.
[[nodiscard]] QString plainToolTip(const QString& text);

/// The ring around what the keyboard acts on.
void paintFocusRing(QPainter& painter, const QRectF& around, double radius, const SheetColors& colors);

} // namespace orlinth::share
