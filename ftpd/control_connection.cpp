#include "ftpd/control_connection.hpp"

#include "accounts/login_check.hpp"
#include "accounts/user.hpp"
#include "core/reactor.hpp"
#include "core/server.hpp"
#include "core/slot_socket.hpp"
#include "ftpd/dispatcher.hpp"
#include "ftpd/ftps.hpp"
#include "ftpd/modern_commands.hpp"
#include "ftpd/modern_session.hpp"
#include "ftpd/replies.hpp"
#include "platform/net.hpp"
#include "platform/text.hpp"

#include <cstring>

namespace orv {

std::string take_command_line(std::string& buffer) {
    if (buffer.find("\r\n") == std::string::npos)
        return {};
    size_t end = buffer.find_first_of("\r\n");
    std::string line = buffer.substr(0, end);
    buffer.erase(0, std::min(buffer.size(), end + 2));
    return line;
}

namespace {

// PASS in any case, alone or followed by a blank or another separator a client might use.
bool is_password_line(std::string_view line) {
    if (line.size() < 4 || to_upper_ascii(line.substr(0, 4)) != "PASS")
        return false;
    return line.size() == 4 || static_cast<unsigned char>(line[4]) <= ' ';
}

} // namespace

void log_command_line(Server& server, const ConnSlot& slot, const std::string& line) {
    int socket = slot.socket;
    // A password never reaches the log, whatever the session's state: PASS before USER, or a
    // second PASS, carries one too.
    if (slot.state == 2 || is_password_line(line))
        server.log.logf("(%i) <password>", socket);
    else
        server.log.logf("(%i) %s", socket, log_safe(line).c_str());
}

void close_after(FtpContext& ctx, const SlotPtr& slot) {
    int socket = slot->socket;
    close_session(ctx, slot);
    ctx.server.log.logf("FTP Close port %i", socket);
    slot->close_control();
    // A transfer or listing still running for the gone client ends instead of holding its
    // thread until the data connection times out; an upload still takes what has arrived.
    slot->stop = 1;
}

void open_session(const FtpContextPtr& ctx, asio::ip::tcp::socket socket, int socket_number,
                  bool implicit_tls) {
    Server& server = ctx->server;
    auto slot = std::make_shared<ConnSlot>(Service::Ftp, socket_number);
    if (server.settings.ext.ftp_modern)
        start_modern_session(ctx, slot, socket_number);
    slot->take_peer_address(socket_number);
    slot->attach_control(std::make_unique<SlotSocket>(std::move(socket)));
    server.conns.add(slot);
    ctx->last_accepted = slot;
    // The greeting goes out whatever the number of clients: the limits apply at login.
    if (implicit_tls && slot->ftp_extras && slot->ftp_extras->ftps)
        start_implicit_tls(ctx, slot); // greets once the handshake is done
    else
        slot->send_text(ftp_text::kGreeting);
    server.update_title();

    ControlEvents events;
    events.on_read = [ctx](const SlotPtr& s, const char* data, size_t size) {
        on_control_read(ctx, s, data, size);
    };
    events.on_close = [ctx](const SlotPtr& s) { close_after(*ctx, s); };
    events.on_error = [ctx](const SlotPtr& s, int) {
        ctx->server.log.logf("Unknown WSAAsyncSelect on port %i", s->socket.load());
        close_after(*ctx, s);
    };
    watch_control(server, slot, std::move(events));
}

bool close_session(FtpContext& ctx, const SlotPtr& slot) {
    Server& server = ctx.server;
    if (!server.conns.remove(slot)) {
        server.log.logf("Error removing user on port %i", slot->socket.load());
        return true;
    }
    if (slot->stop == 1)
        slot->state = 3;
    give_back_login(*slot);
    slot->send_text(ftp_text::kGoodbyeBanner);
    slot->send_text(ftp_text::kGoodbye);
    server.update_title();
    return true;
}

void on_control_read(const FtpContextPtr& ctx, const SlotPtr& slot, const char* data, size_t size) {
    if (slot->ftp_extras) { // every complete line in turn
        modern_control_read(ctx, slot, data, size);
        return;
    }
    Server& server = ctx->server;
    std::string& buffer = slot->line_buf;
    if (size + buffer.size() >= kCommandBufferLimit) {
        // The notice goes to the newest session, which is not always the offender; clients
        // have long seen it that way.
        if (SlotPtr newest = ctx->last_accepted.lock())
            newest->send_text(ftp_text::kOverflow);
        close_after(*ctx, slot);
        return;
    }
    // The buffer holds text: bytes after a NUL in one read never reach it.
    buffer.append(data, strnlen(data, size));
    std::string line = take_command_line(buffer);
    int socket = slot->socket;
    if (!line.empty()) {
        log_command_line(server, *slot, line);
        ftp_dispatch(ctx, slot, std::move(line));
    } else if (slot->state != 3) {
        server.log.logf("(%i) <nothing>", socket);
        ftp_dispatch(ctx, slot, std::string());
    }
}

} // namespace orv
