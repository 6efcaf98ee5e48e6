#include "OrlinthShare/ShareBackgroundView.h"

#include "OrlinthShare/SheetLook.h"

#include <QCloseEvent>
#include <QKeyEvent>
#include <QPainter>

namespace orlinth::share {

ShareBackgroundView::ShareBackgroundView()
    : QWidget(nullptr, Qt::Dialog | Qt::CustomizeWindowHint | Qt::WindowTitleHint | Qt::WindowCloseButtonHint) {
    setWindowTitle(QStringLiteral("Share with Orlinth"));
}

void ShareBackgroundView::paintEvent(QPaintEvent* /*event*/) {
    QPainter painter(this);
    painter.fillRect(rect(), SheetColors::of(palette()).window);
}

void ShareBackgroundView::keyPressEvent(QKeyEvent* event) {
    if (event->key() == Qt::Key_Escape && onDismiss) {
        onDismiss();
        return;
    }
    QWidget::keyPressEvent(event);
}

void ShareBackgroundView::closeEvent(QCloseEvent* event) {
    event->ignore();
    if (onDismiss) {
        onDismiss();
    }
}

} // namespace orlinth::share
