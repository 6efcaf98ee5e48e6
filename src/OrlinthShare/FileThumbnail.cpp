#include "OrlinthShare/FileThumbnail.h"

#include "OrlinthShare/SheetLook.h"

#include <QBuffer>
#include <QFile>
#include <QFileInfo>
#include <QIcon>
#include <QImageReader>
#include <QMimeDatabase>
#include <QPainter>
#include <QPainterPath>
#include <algorithm>

namespace orlinth::share {
namespace {

constexpr qint64 mostFileBytes = 64LL * 1024 * 1024;
constexpr qint64 mostPixels = 64LL * 1000 * 1000;

QImage readPicture(const QString& path, const QSize& pixels) {
    QImageReader reader(path);
    reader.setAutoTransform(true);
    const QSize size = reader.size();
    if (!size.isValid() || size.isEmpty() || qint64{size.width()} * size.height() > mostPixels) {
        return {};
    }
    // a camera's orientation may swap the sides, which only the finished picture shows: large enough either way
    const int longest = std::max(pixels.width(), pixels.height());
    if (std::min(size.width(), size.height()) > longest) { // else a line of pixels would grow without end
        reader.setScaledSize(size.scaled(longest, longest, Qt::KeepAspectRatioByExpanding));
    }
    const QImage read = reader.read();
    if (read.isNull()) {
        return {};
    }
    // cut first: the parts that are not seen are not scaled
    const QSize part = pixels.scaled(read.size(), Qt::KeepAspectRatio).expandedTo(QSize(1, 1));
    const QPoint corner((read.width() - part.width()) / 2, (read.height() - part.height()) / 2);
    return read.copy(QRect(corner, part))
        .scaled(pixels, Qt::IgnoreAspectRatio, Qt::SmoothTransformation)
        .convertToFormat(QImage::Format_ARGB32_Premultiplied);
}

} // namespace

FileLook lookOfFile(const platform::Path& file, const QSize& frame, qreal pixelRatio) {
    FileLook look;
    const QString path = QFile::decodeName(QByteArray::fromStdString(file.string()));
    const QMimeType type = QMimeDatabase().mimeTypeForFile(path, QMimeDatabase::MatchExtension);
    look.iconName = type.iconName();
    look.genericIconName = type.genericIconName();
    // an SVG file may ask for other files
    const bool isPicture =
        type.name().startsWith(QStringLiteral("image/")) && !type.inherits(QStringLiteral("text/xml")) &&
        !type.inherits(QStringLiteral("application/xml")) && !type.name().contains(QStringLiteral("svg"));
    if (isPicture && QFileInfo(path).isFile() && QFileInfo(path).size() <= mostFileBytes) {
        look.picture = readPicture(path, (QSizeF(frame) * pixelRatio).toSize());
    }
    return look;
}

QPixmap pictureOf(const FileLook& look, const QSize& frame, qreal pixelRatio, const QPalette& palette) {
    QPixmap result((QSizeF(frame) * pixelRatio).toSize());
    result.setDevicePixelRatio(pixelRatio);
    result.fill(Qt::transparent);
    QPainter painter(&result);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setRenderHint(QPainter::SmoothPixmapTransform);
    const QRectF area(QPointF(0, 0), frame);
    const SheetColors colors = SheetColors::of(palette);
    if (!look.picture.isNull()) {
        QPainterPath outline;
        outline.addRoundedRect(area.adjusted(0.5, 0.5, -0.5, -0.5), 5, 5);
        painter.setClipPath(outline);
        painter.drawImage(area, look.picture);
        painter.setClipping(false);
        painter.setPen(QPen(colors.separator, 1));
        painter.drawPath(outline);
        return result;
    }
    QIcon icon = QIcon::fromTheme(look.iconName);
    if (icon.isNull()) {
        icon = QIcon::fromTheme(look.genericIconName);
    }
    const int side = std::min(frame.width(), frame.height());
    const QRectF square(0, (frame.height() - side) / 2.0, side, side);
    if (!icon.isNull()) {
        painter.drawPixmap(square.toRect(), icon.pixmap(QSize(side, side), pixelRatio));
    } else {
        paintSymbol(painter, Symbol::document, square, colors.secondaryText);
    }
    return result;
}

} // namespace orlinth::share
