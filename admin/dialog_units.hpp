#pragma once
// Dialog sizes are given in dialog units: a quarter of the average character width across,
// an eighth of the character height down.
#include <QFontMetrics>
#include <QSize>
#include <QWidget>

namespace orv {

inline QSize dialog_units(const QWidget* widget, int width, int height) {
    QFontMetrics metrics(widget->font());
    return {width * metrics.averageCharWidth() / 4, height * metrics.height() / 8};
}

} // namespace orv
