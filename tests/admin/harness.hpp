#pragma once
// A server on loopback with the desktop's admin interface, whose message boxes and editor are
// recorded instead of shown, for driving the real dialogs in tests.
#include "admin/desktop_ui.hpp"
#include "app/admin_api.hpp"
#include "support/test_server.hpp"

#include <QAbstractButton>
#include <QCoreApplication>
#include <QString>
#include <QWidget>
#include <vector>

namespace orv::test {

struct Box {
    QString title;
    QString text;
    bool operator==(const Box& other) const { return title == other.title && text == other.text; }
};

class Harness {
  public:
    explicit Harness(TestServerConfig config = {},
                     const std::function<void(TempDir&)>& prepare = nullptr)
        : server(std::move(config), prepare), api(server.app()), ui(api) {
        ui.message = [this](QWidget*, const QString& title, const QString& text,
                            QMessageBox::Icon) {
            boxes.push_back({title, text});
        };
        ui.open_editor = [this](const QString& file) {
            edited.push_back(file);
            return true;
        };
    }

    std::vector<std::string> log_since(size_t mark) const { return server.log_since(mark); }
    size_t log_mark() const { return server.log_lines().size(); }

    TestServer server;
    AdminApi api;
    DesktopUi ui;
    std::vector<Box> boxes;
    std::vector<QString> edited;
};

template <typename T> T* child(QWidget* parent, const char* name) {
    return parent->findChild<T*>(QString::fromLatin1(name));
}

inline void click(QWidget* parent, const char* name) {
    child<QAbstractButton>(parent, name)->click();
}

} // namespace orv::test
