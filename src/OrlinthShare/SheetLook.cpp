#include "OrlinthShare/SheetLook.h"

#include "base/Text.h"

#include <QApplication>
#include <QFontDatabase>
#include <QFontMetricsF>
#include <QLinearGradient>
#include <QPainterPath>
#include <algorithm>
#include <cmath>

namespace orlinth::share {
namespace {

/// `share` of `over` on top of `under`, both opaque.
QColor mixed(const QColor& under, const QColor& over, double share) {
    const auto channel = [share](float below, float above) {
        return static_cast<float>(static_cast<double>(below) * (1 - share) + static_cast<double>(above) * share);
    };
    return QColor::fromRgbF(channel(under.redF(), over.redF()), channel(under.greenF(), over.greenF()),
                            channel(under.blueF(), over.blueF()));
}

double luminance(const QColor& color) {
    const auto linear = [](float channel) {
        const double value = static_cast<double>(channel);
        return value <= 0.04045 ? value / 12.92 : std::pow((value + 0.055) / 1.055, 2.4);
    };
    return 0.2126 * linear(color.redF()) + 0.7152 * linear(color.greenF()) + 0.0722 * linear(color.blueF());
}

/// `color`, moved towards `end` until it can be told from `background`.
QColor readable(QColor color, const QColor& background, const QColor& end, double ratio) {
    constexpr int steps = 20;
    const QColor start = color;
    for (int step = 1; step <= steps && contrastRatio(color, background) < ratio; ++step) {
        color = mixed(start, end, static_cast<double>(step) / steps);
    }
    return color;
}

// The symbols are drawn on a square of 24 units.
constexpr double gridUnits = 24;

QPen linePen(const QColor& color, double width) {
    return {color, width, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin};
}

void paintPhone(QPainter& painter, const QColor& color) {
    painter.setPen(linePen(color, 1.8));
    painter.setBrush(Qt::NoBrush);
    painter.drawRoundedRect(QRectF(6.4, 2.4, 11.2, 19.2), 2.8, 2.8);
    painter.drawLine(QPointF(10.4, 18.4), QPointF(13.6, 18.4));
}

void paintCheckCircle(QPainter& painter, const QColor& color) {
    QPainterPath check(QPointF(7.4, 12.4));
    check.lineTo(10.7, 15.6);
    check.lineTo(16.8, 8.9);
    QPainterPathStroker stroker(linePen(color, 2.1));
    QPainterPath disc;
    disc.addEllipse(QPointF(12, 12), 10.5, 10.5);
    painter.setPen(Qt::NoPen);
    painter.setBrush(color);
    painter.drawPath(disc.subtracted(stroker.createStroke(check)));
}

void paintCircle(QPainter& painter, const QColor& color) {
    painter.setPen(linePen(color, 1.6));
    painter.setBrush(Qt::NoBrush);
    painter.drawEllipse(QPointF(12, 12), 9.7, 9.7);
}

void paintRadioWaves(QPainter& painter, const QColor& color) {
    painter.setPen(Qt::NoPen);
    painter.setBrush(color);
    painter.drawEllipse(QPointF(12, 12), 2.3, 2.3);
    painter.setPen(linePen(color, 1.9));
    painter.setBrush(Qt::NoBrush);
    for (const double radius : {5.6, 9.6}) {
        const QRectF box(12 - radius, 12 - radius, 2 * radius, 2 * radius);
        constexpr int sixteenths = 16; // drawArc counts in these of a degree
        painter.drawArc(box, -45 * sixteenths, 90 * sixteenths);
        painter.drawArc(box, 135 * sixteenths, 90 * sixteenths);
    }
}

void paintDocument(QPainter& painter, const QColor& color) {
    QPainterPath outline(QPointF(13.6, 2.4));
    outline.lineTo(7, 2.4);
    outline.quadTo(4.8, 2.4, 4.8, 4.6);
    outline.lineTo(4.8, 19.4);
    outline.quadTo(4.8, 21.6, 7, 21.6);
    outline.lineTo(17, 21.6);
    outline.quadTo(19.2, 21.6, 19.2, 19.4);
    outline.lineTo(19.2, 8);
    outline.closeSubpath();
    painter.setPen(linePen(color, 1.6));
    painter.setBrush(Qt::NoBrush);
    painter.drawPath(outline);
    painter.drawPolyline(QPolygonF({{13.6, 2.6}, {13.6, 8}, {19, 8}}));
}

void paintWarning(QPainter& painter, const QColor& color) {
    QPainterPath triangle(QPointF(12, 3.2));
    triangle.lineTo(21.6, 20.2);
    triangle.lineTo(2.4, 20.2);
    triangle.closeSubpath();
    painter.setPen(linePen(color, 1.8));
    painter.setBrush(Qt::NoBrush);
    painter.drawPath(triangle);
    painter.drawLine(QPointF(12, 9.4), QPointF(12, 13.8));
    painter.setPen(Qt::NoPen);
    painter.setBrush(color);
    painter.drawEllipse(QPointF(12, 17), 1.2, 1.2);
}

} // namespace

double contrastRatio(const QColor& a, const QColor& b) {
    const double first = luminance(a);
    const double second = luminance(b);
    return (std::max(first, second) + 0.05) / (std::min(first, second) + 0.05);
}

SheetColors SheetColors::of(const QPalette& palette) {
    SheetColors colors;
    colors.window = palette.color(QPalette::Window);
    colors.text = palette.color(QPalette::WindowText);
    colors.isDark = luminance(colors.window) < luminance(colors.text);
    colors.secondaryText = readable(mixed(colors.window, colors.text, 0.62), colors.window, colors.text, 5.0);
    colors.separator = mixed(colors.window, colors.text, colors.isDark ? 0.13 : 0.10);
    colors.card = colors.isDark ? mixed(colors.window, colors.text, 0.055) : palette.color(QPalette::Base);
    colors.cardBorder = mixed(colors.window, colors.text, colors.isDark ? 0.10 : 0.11);
    colors.accent = palette.color(QPalette::Highlight);
    constexpr double nearlyReadable = 2.8;
    colors.onAccent = contrastRatio(Qt::white, colors.accent) >= nearlyReadable ? Qt::white : Qt::black;
    // an accent that is a little too bright is taken back rather than written on in black
    colors.accent = readable(colors.accent, colors.onAccent, colors.onAccent == Qt::white ? Qt::black : Qt::white, 4.5);
    colors.accentMark = readable(colors.accent, colors.window, colors.text, 4.5);
    colors.selectedCard = mixed(colors.card, colors.accentMark, colors.isDark ? 0.16 : 0.08);
    colors.secondaryText = readable(colors.secondaryText, colors.selectedCard, colors.text, 4.6);
    colors.control = mixed(colors.window, colors.text, colors.isDark ? 0.11 : 0.075);
    colors.warning = readable(QColor(0xd9, 0x6b, 0x0b), colors.window, colors.text, 3.0);
    return colors;
}

QColor SheetColors::shifted(const QColor& color, int amount) const {
    return mixed(color, text, 0.05 * amount);
}

QPalette sheetPalette(bool dark) {
    const QColor window = dark ? QColor(0x24, 0x24, 0x28) : QColor(0xf7, 0xf7, 0xf9);
    const QColor base = dark ? QColor(0x1c, 0x1c, 0x1f) : QColor(0xff, 0xff, 0xff);
    const QColor text = dark ? QColor(0xf3, 0xf3, 0xf6) : QColor(0x1b, 0x1b, 0x1f);
    const QColor accent = dark ? QColor(0x4d, 0x71, 0xe6) : QColor(0x35, 0x5f, 0xdb);
    QPalette palette(window);
    for (const QPalette::ColorGroup group : {QPalette::Active, QPalette::Inactive, QPalette::Disabled}) {
        palette.setColor(group, QPalette::Window, window);
        palette.setColor(group, QPalette::Base, base);
        palette.setColor(group, QPalette::AlternateBase, mixed(base, text, 0.04));
        palette.setColor(group, QPalette::Button, mixed(window, text, 0.06));
        palette.setColor(group, QPalette::ToolTipBase, dark ? QColor(0x3a, 0x3a, 0x40) : QColor(0x2b, 0x2b, 0x30));
        palette.setColor(group, QPalette::ToolTipText, Qt::white);
        palette.setColor(group, QPalette::Highlight, accent);
        palette.setColor(group, QPalette::HighlightedText, Qt::white);
        const QColor ink = group == QPalette::Disabled ? mixed(window, text, 0.45) : text;
        for (const QPalette::ColorRole role : {QPalette::WindowText, QPalette::Text, QPalette::ButtonText}) {
            palette.setColor(group, role, ink);
        }
    }
    return palette;
}

QFont sheetFont(int pixels, QFont::Weight weight) {
    QFont font = QApplication::font();
    font.setPixelSize(pixels);
    font.setWeight(weight);
    return font;
}

void paintSymbol(QPainter& painter, Symbol symbol, const QRectF& square, const QColor& color) {
    painter.save();
    painter.setRenderHint(QPainter::Antialiasing);
    painter.translate(square.topLeft());
    painter.scale(square.width() / gridUnits, square.height() / gridUnits);
    switch (symbol) {
    case Symbol::phone:
        paintPhone(painter, color);
        break;
    case Symbol::checkCircleFilled:
        paintCheckCircle(painter, color);
        break;
    case Symbol::circle:
        paintCircle(painter, color);
        break;
    case Symbol::radioWaves:
        paintRadioWaves(painter, color);
        break;
    case Symbol::document:
        paintDocument(painter, color);
        break;
    case Symbol::warning:
        paintWarning(painter, color);
        break;
    }
    painter.restore();
}

QString oneLine(const std::string& text) {
    constexpr char16_t firstOverride = 0x202A;
    constexpr char16_t lastOverride = 0x202E;
    constexpr char16_t firstIsolate = 0x2066;
    constexpr char16_t lastIsolate = 0x2069;
    QString line;
    for (const QChar character : QString::fromStdString(toUtf8(text))) {
        const char16_t code = character.unicode();
        if ((code >= firstOverride && code <= lastOverride) || (code >= firstIsolate && code <= lastIsolate)) {
            continue;
        }
        const bool isBreak = character.category() == QChar::Other_Control ||
                             character.category() == QChar::Separator_Line ||
                             character.category() == QChar::Separator_Paragraph;
        line.append(isBreak ? QChar(u' ') : character);
    }
    return line.simplified();
}

bool isCut(const QFont& font, const QString& text, Qt::TextElideMode mode, double width) {
    return QFontMetricsF(font).elidedText(text, mode, width) != text;
}

bool paintLine(QPainter& painter, const QRectF& rectangle, const QString& text, Qt::TextElideMode mode,
               Qt::Alignment alignment) {
    painter.save();
    // letters with many marks upon them reach far beyond their line
    painter.setClipRect(rectangle, Qt::IntersectClip);
    painter.setLayoutDirection(text.isRightToLeft() ? Qt::RightToLeft : Qt::LeftToRight);
    const QString shown = QFontMetricsF(painter.font()).elidedText(text, mode, rectangle.width());
    const auto flags = static_cast<int>((alignment | Qt::AlignAbsolute).toInt()) | int{Qt::TextSingleLine};
    painter.drawText(rectangle, flags, shown);
    painter.restore();
    return shown != text;
}

QString plainToolTip(const QString& text) {
    return QStringLiteral("<qt>") + text.toHtmlEscaped() + QStringLiteral("</qt>");
}

void paintFocusRing(QPainter& painter, const QRectF& around, double radius, const SheetColors& colors) {
    painter.save();
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setBrush(Qt::NoBrush);
    painter.setPen(QPen(colors.accentMark, 2));
    painter.drawRoundedRect(around.adjusted(1, 1, -1, -1), radius, radius);
    painter.restore();
}

} // namespace orlinth::share
