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
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>
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

// A free TCP port that the settings dialog accepts (1 to 32000; the kernel's own picks lie
// above that).
inline int free_dialog_port() {
    static int next = 20000 + static_cast<int>(::getpid() % 4000) * 3;
    for (int tries = 0; tries < 12000; ++tries) {
        int port = next++;
        if (next > 32000)
            next = 20000;
        int fd = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in sa{};
        sa.sin_family = AF_INET;
        sa.sin_port = htons(static_cast<uint16_t>(port));
        bool free = ::bind(fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa) == 0;
        ::close(fd);
        if (free)
            return port;
    }
    return 0;
}

template <typename T> T* child(QWidget* parent, const char* name) {
    return parent->findChild<T*>(QString::fromLatin1(name));
}

inline void click(QWidget* parent, const char* name) {
    child<QAbstractButton>(parent, name)->click();
}

} // namespace orv::test
