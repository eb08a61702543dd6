// Our own editor window for the help text and the FTP login message, where the desktop has no
// editor: it shows the file, Save writes it, Cancel does not, and a file that cannot be
// written is said so in a box.
#include "admin/text_editor_dialog.hpp"
#include "harness.hpp"

#include <QPlainTextEdit>
#include <QtTest>

using namespace orv;
using orv::test::child;
using orv::test::click;

class TextEditorTest : public QObject {
    Q_OBJECT
  private slots:
    void save_writes_and_cancel_does_not();
    void a_file_that_cannot_be_written_is_said_so();
    void without_a_desktop_editor_our_own_window_opens();
};

void TextEditorTest::save_writes_and_cancel_does_not() {
    test::Harness h;
    h.server.dir().write("motd.txt", "Welcome\n");
    QString path = QString::fromStdString((h.server.dir() / "motd.txt").string());

    TextEditorDialog cancelled(h.ui, nullptr, path);
    QCOMPARE(cancelled.editor()->toPlainText(), QStringLiteral("Welcome\n"));
    cancelled.editor()->setPlainText(QStringLiteral("changed"));
    click(&cancelled, "cancel");
    QCOMPARE(cancelled.result(), int(QDialog::Rejected));
    QCOMPARE(h.server.dir().read("motd.txt"), std::string("Welcome\n"));

    TextEditorDialog saved(h.ui, nullptr, path);
    saved.editor()->setPlainText(QStringLiteral("Hello\nthere\n"));
    click(&saved, "save");
    QCOMPARE(saved.result(), int(QDialog::Accepted));
    QCOMPARE(h.server.dir().read("motd.txt"), std::string("Hello\nthere\n"));
    QVERIFY(h.boxes.empty());

    // A file that is not there yet opens empty and is made by Save.
    QString fresh = QString::fromStdString((h.server.dir() / "ov-help.txt").string());
    TextEditorDialog help(h.ui, nullptr, fresh);
    QCOMPARE(help.editor()->toPlainText(), QString());
    help.editor()->setPlainText(QStringLiteral("help"));
    click(&help, "save");
    QCOMPARE(h.server.dir().read("ov-help.txt"), std::string("help"));
}

void TextEditorTest::a_file_that_cannot_be_written_is_said_so() {
    test::Harness h;
    QString path = QString::fromStdString((h.server.dir() / "no-such-folder/motd.txt").string());
    TextEditorDialog dialog(h.ui, nullptr, path);
    dialog.editor()->setPlainText(QStringLiteral("kept"));
    click(&dialog, "save");
    QCOMPARE(h.boxes.size(), size_t(1));
    QCOMPARE(h.boxes[0].title, QStringLiteral("Error"));
    QVERIFY(h.boxes[0].text.startsWith(QStringLiteral("Unable to save ") + path));
    // The window stays with the text, so nothing typed is lost.
    QCOMPARE(dialog.result(), 0);
    QCOMPARE(dialog.editor()->toPlainText(), QStringLiteral("kept"));
}

void TextEditorTest::without_a_desktop_editor_our_own_window_opens() {
    test::Harness h;
    DesktopUi real(h.api); // the real open_editor, with no opener and no editor to start
    QByteArray path = qgetenv("PATH");
    QByteArray visual = qgetenv("VISUAL");
    QByteArray editor = qgetenv("EDITOR");
    qputenv("PATH", QByteArray("/nonexistent"));
    qunsetenv("VISUAL");
    qunsetenv("EDITOR");
    QStringList shown;
    real.edit_text = [&](QWidget*, const QString& file) { shown << file; };
    QVERIFY(real.open_editor(QStringLiteral("ov-help.txt")));
    qputenv("PATH", path);
    if (!visual.isNull())
        qputenv("VISUAL", visual);
    if (!editor.isNull())
        qputenv("EDITOR", editor);
    QCOMPARE(shown, QStringList{QString::fromStdString((h.server.dir() / "ov-help.txt").string())});
}

QTEST_MAIN(TextEditorTest)
#include "text_editor_test.moc"
