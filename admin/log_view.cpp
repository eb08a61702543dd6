#include "admin/log_view.hpp"

#include <QPalette>

namespace orv {
namespace {

QString display_text(const std::string& line) {
    QString text = QString::fromUtf8(line.data(), static_cast<qsizetype>(line.size()));
    while (text.endsWith(QLatin1Char('\n')) || text.endsWith(QLatin1Char('\r')))
        text.chop(1);
    return text;
}

} // namespace

LogView::LogView(QWidget* parent) : QListWidget(parent) {
    setObjectName(QStringLiteral("log"));
    setSelectionMode(QAbstractItemView::NoSelection);
    setUniformItemSizes(true);
    QPalette p = palette();
    p.setColor(QPalette::Base, Qt::white);
    p.setColor(QPalette::Text, Qt::black);
    setPalette(p);
}

void LogView::add_lines(const std::vector<std::string>& lines) {
    if (lines.empty())
        return;
    setUpdatesEnabled(false);
    size_t top = 0;
    for (const std::string& line : lines) {
        size_t before = model_.lines().size();
        top = model_.add(line);
        size_t after = model_.lines().size();
        // Mirror what the rule did: an append, an append with the oldest line dropped, or a
        // reset.
        if (after == before + 1) {
            addItem(display_text(line));
        } else if (after == before && after > 0) {
            delete takeItem(0);
            addItem(display_text(line));
        } else {
            clear();
            for (const std::string& kept : model_.lines())
                addItem(display_text(kept));
        }
    }
    clearSelection();
    if (QListWidgetItem* item = this->item(static_cast<int>(top)))
        scrollToItem(item, QAbstractItemView::PositionAtTop);
    setUpdatesEnabled(true);
}

} // namespace orv
