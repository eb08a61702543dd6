#include "admin/editor.hpp"

#include <QProcess>
#include <QStandardPaths>
#include <QStringList>

namespace orv {
namespace {

bool start(const QString& program, QStringList args, const QString& file,
           const QString& working_dir) {
    if (program.isEmpty())
        return false;
    args << file;
    return QProcess::startDetached(program, args, working_dir);
}

bool start_command(const QByteArray& command, const QString& file, const QString& working_dir) {
    QStringList words = QProcess::splitCommand(QString::fromLocal8Bit(command));
    if (words.isEmpty())
        return false;
    QString program = words.takeFirst();
    return start(program, words, file, working_dir);
}

} // namespace

bool open_in_text_editor(const QString& file, const QString& working_dir) {
    // The desktop's own choice of editor comes first; $VISUAL and $EDITOR are often terminal
    // editors, which a window cannot show.
    QString opener = QStandardPaths::findExecutable(QStringLiteral("xdg-open"));
    if (start(opener, {}, file, working_dir))
        return true;
    for (const char* variable : {"VISUAL", "EDITOR"})
        if (start_command(qgetenv(variable), file, working_dir))
            return true;
    return false;
}

} // namespace orv
