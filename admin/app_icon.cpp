#include "admin/app_icon.hpp"

#include <QLinearGradient>
#include <QPainter>
#include <QPainterPath>

namespace orv {

QPixmap app_pixmap(int size) {
    QPixmap pixmap(size, size);
    pixmap.fill(Qt::transparent);
    QPainter p(&pixmap);
    p.setRenderHint(QPainter::Antialiasing);
    const qreal s = size;
    // A dark blue tile with a light ring (the "O") and a small orange server slot through it.
    QLinearGradient tile(0, 0, 0, s);
    tile.setColorAt(0, QColor(0x2b, 0x5f, 0xa8));
    tile.setColorAt(1, QColor(0x16, 0x36, 0x66));
    QPainterPath background;
    background.addRoundedRect(QRectF(s * 0.04, s * 0.04, s * 0.92, s * 0.92), s * 0.18, s * 0.18);
    p.fillPath(background, tile);
    p.setPen(QPen(QColor(0xf2, 0xf5, 0xfa), s * 0.11));
    p.drawEllipse(QRectF(s * 0.24, s * 0.22, s * 0.52, s * 0.52));
    p.setPen(Qt::NoPen);
    p.setBrush(QColor(0xf5, 0xa6, 0x23));
    p.drawRoundedRect(QRectF(s * 0.18, s * 0.78, s * 0.64, s * 0.08), s * 0.03, s * 0.03);
    return pixmap;
}

QIcon app_icon() {
    QIcon icon;
    for (int size : {16, 24, 32, 48, 64, 128})
        icon.addPixmap(app_pixmap(size));
    return icon;
}

} // namespace orv
