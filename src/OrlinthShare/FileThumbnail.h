#pragma once

#include "platform/FileSystem.h"

#include <QImage>
#include <QPalette>
#include <QPixmap>
#include <QSize>
#include <QString>

namespace orlinth::share {

/// What there is to show of a file.
struct FileLook {
    QImage picture;          ///< of a picture: itself, cut to the frame; else null
    QString iconName;        ///< of its type, in the desktop's icon theme
    QString genericIconName; ///< of its kind of types
};

/// Looks at a file. A picture that is too large to be worth it counts as one that cannot be read. Any thread.
[[nodiscard]] FileLook lookOfFile(const platform::Path& file, const QSize& frame, qreal pixelRatio);

/// The same as something to show: the picture with round corners, else the theme's icon, else a sheet of paper. On the
/// main thread.
[[nodiscard]] QPixmap pictureOf(const FileLook& look, const QSize& frame, qreal pixelRatio, const QPalette& palette);

} // namespace orlinth::share
