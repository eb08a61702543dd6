#include "core/log_panel.hpp"

namespace orv {

size_t LogPanelModel::add(std::string_view text) {
    size_t n = lines_.size();
    lines_.emplace_back(text);
    if (n > 512) {
        lines_.pop_front();
        n = lines_.size() - 1;
        if (n > 1000)
            lines_.clear();
    }
    return n;
}

} // namespace orv
