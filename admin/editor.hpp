#pragma once
// Opening a text file for the administrator (the help text, the FTP login message).
#include <QString>

namespace orv {

// Starts the desktop's opener (xdg-open) on the file, or else $VISUAL or $EDITOR, with
// `working_dir` as the working directory. False when none could be started.
bool open_in_text_editor(const QString& file, const QString& working_dir);

} // namespace orv
