// orvane-server: the process entry point.
#include "accounts/password.hpp"
#include "app/admin_client.hpp"
#include "app/desktop.hpp"
#include "app/instance_lock.hpp"
#include "app/options.hpp"
#include "app/server_app.hpp"
#include "platform/net.hpp"
#include "platform/service_notify.hpp"

#include <asio.hpp>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iostream>

namespace {

int encode_password_command(const orv::Options& o) {
    std::error_code ec;
    std::filesystem::path dir = o.start_dir.empty() ? std::filesystem::current_path(ec)
                                                    : std::filesystem::path(o.start_dir);
    std::optional<std::string> stored =
        orv::store_password_for(dir, o.encode_name, o.encode_password_text);
    if (!stored) {
        std::fprintf(stderr, "orvane-server: the password cannot be stored: use 1 to 31 printable "
                             "characters without ':'\n");
        return 2;
    }
    std::printf("%s\n", stored->c_str());
    return 0;
}

bool want_desktop(const orv::Options& o) {
#ifdef ORVANE_HAVE_DESKTOP
    if (o.headless)
        return false;
    const char* x = std::getenv("DISPLAY");
    const char* w = std::getenv("WAYLAND_DISPLAY");
    return (x && *x) || (w && *w);
#else
    (void)o;
    return false;
#endif
}

int run_headless(orv::ServerApp& app) {
    asio::signal_set signals(app.server().io(), SIGINT, SIGTERM);
    signals.async_wait([&app](const asio::error_code& ec, int) {
        if (!ec)
            app.request_stop();
    });
    // SIGHUP re-reads settings.ini; it never ends the process.
    asio::signal_set hangups(app.server().io(), SIGHUP);
    app.watch_hangups(hangups);
    app.start();
    orv::notify_service_ready();
    app.run();
    orv::notify_service_stopping();
    signals.cancel();
    hangups.cancel();
    app.shutdown();
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    std::vector<std::string> args(argv + 1, argv + argc);
    std::string error;
    std::optional<orv::Options> options = orv::parse_options(args, error);
    if (!options) {
        std::fprintf(stderr, "orvane-server: %s\n%s", error.c_str(), orv::usage_text().c_str());
        return 2;
    }
    if (options->help) {
        std::fputs(orv::usage_text().c_str(), stdout);
        return 0;
    }
    if (options->version) {
        std::printf("orvane-server %s\n", ORVANE_VERSION);
        return 0;
    }
    if (options->encode_password)
        return encode_password_command(*options);

    std::error_code ec;
    std::filesystem::path start_dir = options->start_dir.empty()
                                          ? std::filesystem::current_path(ec)
                                          : std::filesystem::absolute(options->start_dir, ec);
    if (ec || !std::filesystem::is_directory(start_dir, ec)) {
        std::fprintf(stderr, "orvane-server: not a directory: %s\n", options->start_dir.c_str());
        return 2;
    }

    if (options->admin)
        return orv::run_admin_client(start_dir, options->admin_args);

    [[maybe_unused]] bool desktop = want_desktop(*options);
    orv::InstanceLock lock(start_dir);
    if (!lock.held()) {
#ifdef ORVANE_HAVE_DESKTOP
        if (desktop)
            orv::raise_running_instance(start_dir.c_str());
#endif
        return 0;
    }

    std::signal(SIGPIPE, SIG_IGN);
    // Under a file-size limit a write past it must fail like a full disk, not kill the server.
    std::signal(SIGXFSZ, SIG_IGN);
    orv::raise_open_file_limit();
#ifdef ORVANE_HAVE_DESKTOP
    if (desktop) {
        orv::ServerApp app(start_dir, nullptr);
        return orv::run_desktop(app, argc, argv);
    }
#endif
    orv::ServerApp app(start_dir, [](std::string_view line) {
        std::fwrite(line.data(), 1, line.size(), stdout);
        std::fputc('\n', stdout);
        std::fflush(stdout);
    });
    return run_headless(app);
}
