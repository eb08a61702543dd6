#pragma once
// The program's icon (window, tray, About box), drawn at start so no image file is needed.
#include <QIcon>
#include <QPixmap>

namespace orv {

QPixmap app_pixmap(int size);
QIcon app_icon();

} // namespace orv
