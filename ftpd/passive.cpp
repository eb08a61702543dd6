#include "ftpd/passive.hpp"

#include "core/server.hpp"
#include "ftpd/data_connection.hpp"
#include "ftpd/replies.hpp"
#include "platform/net.hpp"
#include "platform/text.hpp"

#include <arpa/inet.h>
#include <asio/io_context.hpp>
#include <asio/steady_timer.hpp>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <unistd.h>

namespace orv {

PassiveListener::~PassiveListener() {
    if (fd >= 0)
        ::close(fd);
}

namespace {

// An IPv4 address inside `addr` (plain or IPv4-mapped IPv6), network order.
bool ipv4_of(const SockAddr& addr, uint32_t& out) {
    if (addr.family() == AF_INET) {
        out = reinterpret_cast<const sockaddr_in&>(addr.storage).sin_addr.s_addr;
        return true;
    }
    if (addr.family() == AF_INET6) {
        const in6_addr& a = reinterpret_cast<const sockaddr_in6&>(addr.storage).sin6_addr;
        if (IN6_IS_ADDR_V4MAPPED(&a)) {
            std::memcpy(&out, a.s6_addr + 12, 4);
            return true;
        }
    }
    return false;
}

int port_of(const SockAddr& addr) {
    if (addr.family() == AF_INET)
        return ntohs(reinterpret_cast<const sockaddr_in&>(addr.storage).sin_port);
    if (addr.family() == AF_INET6)
        return ntohs(reinterpret_cast<const sockaddr_in6&>(addr.storage).sin6_port);
    return 0;
}

void set_port(SockAddr& addr, int port) {
    if (addr.family() == AF_INET)
        reinterpret_cast<sockaddr_in&>(addr.storage).sin_port = htons(static_cast<uint16_t>(port));
    else if (addr.family() == AF_INET6)
        reinterpret_cast<sockaddr_in6&>(addr.storage).sin6_port =
            htons(static_cast<uint16_t>(port));
}

SockAddr ipv4_addr(uint32_t addr_be, int port) {
    SockAddr out;
    auto& in = reinterpret_cast<sockaddr_in&>(out.storage);
    in.sin_family = AF_INET;
    in.sin_addr.s_addr = addr_be;
    in.sin_port = htons(static_cast<uint16_t>(port));
    out.size = sizeof(sockaddr_in);
    return out;
}

constexpr const char* kCannotOpen = "425 Can't open data connection.\r\n";
constexpr const char* kNoPassivePort = "425 Can't open passive connection.\r\n";
constexpr const char* kEpsvAllInEffect = "503 EPSV ALL in effect: use EPSV.\r\n";

// A listening socket on the control connection's local address, with a port of the range.
std::shared_ptr<PassiveListener> open_listener(FtpContext& ctx, const SockAddr& local) {
    const Extensions& ext = ctx.server.settings.ext;
    int fd = ::socket(local.family(), SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0)
        return nullptr;
    int on = 1;
    // A port whose last data connection is still in TIME_WAIT can listen again.
    ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    unsigned count = static_cast<unsigned>(ext.passive_high - ext.passive_low + 1);
    unsigned start = ctx.next_passive.fetch_add(1);
    SockAddr addr = local;
    for (unsigned i = 0; i < count; ++i) {
        int port = ext.passive_low + static_cast<int>((start + i) % count);
        set_port(addr, port);
        if (::bind(fd, reinterpret_cast<const sockaddr*>(&addr.storage), addr.size) == 0 &&
            ::listen(fd, 4) == 0) {
            auto listener = std::make_shared<PassiveListener>();
            listener->fd = fd;
            listener->port = port;
            return listener;
        }
        if (errno != EADDRINUSE)
            break;
    }
    ::close(fd);
    return nullptr;
}

// Closes a listener nobody connected to in time, unless a command has taken it meanwhile.
void schedule_expiry(const FtpContextPtr& ctx, const SlotPtr& slot,
                     const std::shared_ptr<PassiveListener>& listener) {
    auto timer = std::make_shared<asio::steady_timer>(ctx->server.io());
    timer->expires_at(listener->deadline);
    std::weak_ptr<ConnSlot> weak_slot = slot;
    std::weak_ptr<PassiveListener> weak_listener = listener;
    timer->async_wait([ctx, timer, weak_slot, weak_listener](const asio::error_code&) {
        SlotPtr s = weak_slot.lock();
        std::shared_ptr<PassiveListener> l = weak_listener.lock();
        if (!s || !l || !s->ftp_extras)
            return;
        FtpSessionExtras& ex = *s->ftp_extras;
        {
            std::lock_guard lock(ex.mutex);
            if (ex.passive != l)
                return;
            ex.passive.reset();
        }
        int port = l->port;
        l.reset(); // closed before it is said to be
        ctx->server.log.logf("(%i) Passive port %i closed: no data connection came",
                             s->socket.load(), port);
    });
}

int deadline_left_ms(std::chrono::steady_clock::time_point deadline) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    return static_cast<int>(std::max<long long>(0, left.count()));
}

// Waits for the client's connection on the listener; others are closed and logged.
int accept_passive(Server& server, ConnSlot& slot, const PassiveListener& listener) {
    const FtpSessionExtras& ex = *slot.ftp_extras;
    for (;;) {
        int left = deadline_left_ms(listener.deadline);
        if (left <= 0 || slot.stop.load() != 0 || server.stopping.load())
            return -1;
        pollfd p{listener.fd, POLLIN, 0};
        int r = ::poll(&p, 1, std::min(left, 500));
        if (r <= 0)
            continue;
        SockAddr from;
        from.size = sizeof from.storage;
        int fd = ::accept4(listener.fd, reinterpret_cast<sockaddr*>(&from.storage), &from.size,
                           SOCK_CLOEXEC);
        if (fd < 0)
            continue;
        if (same_host(from, ex.peer))
            return fd;
        // Somebody else than our client: the usual data-connection theft.
        server.log.logf("(%i) Passive data connection from %s refused", slot.socket.load(),
                        address_text(from).c_str());
        ::close(fd);
    }
}

int connect_with_timeout(const SockAddr& target, int timeout_ms) {
    int fd = ::socket(target.family(), SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0)
        return -1;
    int on = 1;
    ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    // Port 20 when the process may, as the classic data connection does.
    SockAddr any;
    any.storage.ss_family = static_cast<sa_family_t>(target.family());
    any.size = target.size;
    set_port(any, 20);
    if (::bind(fd, reinterpret_cast<const sockaddr*>(&any.storage), any.size) != 0) {
        set_port(any, 0);
        ::bind(fd, reinterpret_cast<const sockaddr*>(&any.storage), any.size);
    }
    int rc = ::connect(fd, reinterpret_cast<const sockaddr*>(&target.storage), target.size);
    if (rc != 0 && errno == EINPROGRESS) {
        pollfd p{fd, POLLOUT, 0};
        int err = 0;
        socklen_t len = sizeof err;
        if (::poll(&p, 1, timeout_ms) == 1 &&
            ::getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len) == 0 && err == 0)
            rc = 0;
    }
    if (rc != 0) {
        ::close(fd);
        return -1;
    }
    int flags = ::fcntl(fd, F_GETFL);
    ::fcntl(fd, F_SETFL, flags & ~O_NONBLOCK);
    return fd;
}

} // namespace

bool is_private_address(const SockAddr& addr) {
    uint32_t v4 = 0;
    if (ipv4_of(addr, v4)) {
        uint32_t a = ntohl(v4);
        return (a >> 24) == 127 || (a >> 24) == 10 || (a >> 20) == (172u << 4 | 1) ||
               (a >> 16) == (192u << 8 | 168) || (a >> 16) == (169u << 8 | 254);
    }
    if (addr.family() == AF_INET6) {
        const in6_addr& a = reinterpret_cast<const sockaddr_in6&>(addr.storage).sin6_addr;
        return IN6_IS_ADDR_LOOPBACK(&a) || IN6_IS_ADDR_LINKLOCAL(&a) ||
               (a.s6_addr[0] & 0xfe) == 0xfc;
    }
    return false;
}

std::string address_text(const SockAddr& addr) {
    char text[INET6_ADDRSTRLEN] = "";
    uint32_t v4 = 0;
    if (ipv4_of(addr, v4))
        ::inet_ntop(AF_INET, &v4, text, sizeof text);
    else if (addr.family() == AF_INET6)
        ::inet_ntop(AF_INET6, &reinterpret_cast<const sockaddr_in6&>(addr.storage).sin6_addr, text,
                    sizeof text);
    return text;
}

bool same_host(const SockAddr& a, const SockAddr& b) {
    uint32_t a4 = 0, b4 = 0;
    bool av4 = ipv4_of(a, a4), bv4 = ipv4_of(b, b4);
    if (av4 || bv4)
        return av4 && bv4 && a4 == b4;
    if (a.family() != AF_INET6 || b.family() != AF_INET6)
        return false;
    return std::memcmp(&reinterpret_cast<const sockaddr_in6&>(a.storage).sin6_addr,
                       &reinterpret_cast<const sockaddr_in6&>(b.storage).sin6_addr,
                       sizeof(in6_addr)) == 0;
}

std::string pasv_reply(uint32_t announce_be, int port) {
    const auto* b = reinterpret_cast<const unsigned char*>(&announce_be);
    return strf("227 Entering Passive Mode (%d,%d,%d,%d,%d,%d).\r\n", b[0], b[1], b[2], b[3],
                port >> 8, port & 255);
}

uint32_t pasv_announce_address(const Extensions& ext, const FtpSessionExtras& session) {
    uint32_t local = 0;
    if (!ipv4_of(session.local, local))
        return 0;
    if (ext.passive_ipv4 != 0 && !is_private_address(session.peer))
        return ext.passive_ipv4;
    return local;
}

bool parse_eprt(std::string_view arg, SockAddr& out) {
    if (arg.size() < 7)
        return false;
    char d = arg.front();
    if (d < 33 || d > 126 || arg.back() != d)
        return false;
    std::string_view rest = arg.substr(1, arg.size() - 2);
    size_t a = rest.find(d), b = a == std::string_view::npos ? a : rest.find(d, a + 1);
    if (b == std::string_view::npos || rest.find(d, b + 1) != std::string_view::npos)
        return false;
    std::string_view proto = rest.substr(0, a);
    std::string host(rest.substr(a + 1, b - a - 1));
    std::string_view port_text = rest.substr(b + 1);
    int port = 0;
    auto [end, ec] = std::from_chars(port_text.data(), port_text.data() + port_text.size(), port);
    if (ec != std::errc() || end != port_text.data() + port_text.size() || port < 1 || port > 65535)
        return false;
    out = SockAddr{};
    if (proto == "1") {
        auto& in = reinterpret_cast<sockaddr_in&>(out.storage);
        if (::inet_pton(AF_INET, host.c_str(), &in.sin_addr) != 1)
            return false;
        in.sin_family = AF_INET;
        out.size = sizeof(sockaddr_in);
    } else if (proto == "2") {
        auto& in6 = reinterpret_cast<sockaddr_in6&>(out.storage);
        if (::inet_pton(AF_INET6, host.c_str(), &in6.sin6_addr) != 1)
            return false;
        in6.sin6_family = AF_INET6;
        out.size = sizeof(sockaddr_in6);
    } else {
        return false;
    }
    set_port(out, port);
    return true;
}

int passive_timeout_ms() {
    if (const char* text = std::getenv("ORVANE_PASSIVE_TIMEOUT_MS")) {
        int ms = std::atoi(text);
        if (ms > 0)
            return ms;
    }
    return 30000;
}

std::string passive_command(const FtpContextPtr& ctx, const SlotPtr& slot, bool extended,
                            std::string_view arg) {
    FtpSessionExtras& ex = *slot->ftp_extras;
    std::string upper = to_upper_ascii(arg);
    if (extended && upper == "ALL") {
        ex.epsv_all = true;
        return "200 EPSV ALL command successful.\r\n";
    }
    if (!extended && ex.epsv_all)
        return kEpsvAllInEffect;
    if (extended && !arg.empty()) {
        bool v4 = ex.local.family() == AF_INET;
        if (!(upper == "1" && v4) && !(upper == "2" && !v4))
            return "522 Network protocol not supported, use (1,2)\r\n";
    }
    uint32_t announce = 0;
    if (!extended) {
        announce = pasv_announce_address(ctx->server.settings.ext, ex);
        if (announce == 0)
            return "425 PASV needs an IPv4 connection: use EPSV.\r\n";
    }
    auto listener = open_listener(*ctx, ex.local);
    if (!listener) {
        ctx->server.log.logf("(%i) No passive port free", slot->socket.load());
        return kNoPassivePort;
    }
    listener->deadline =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(passive_timeout_ms());
    {
        std::lock_guard lock(ex.mutex);
        ex.passive = listener;
        ex.eprt_set = false;
    }
    schedule_expiry(ctx, slot, listener);
    if (extended)
        return strf("229 Entering Extended Passive Mode (|||%d|)\r\n", listener->port);
    return pasv_reply(announce, listener->port);
}

std::string eprt_command(const SlotPtr& slot, std::string_view arg) {
    FtpSessionExtras& ex = *slot->ftp_extras;
    if (ex.epsv_all)
        return kEpsvAllInEffect;
    SockAddr target;
    if (!parse_eprt(arg, target))
        return "501 Syntax error in EPRT arguments.\r\n";
    std::lock_guard lock(ex.mutex);
    ex.passive.reset();
    ex.eprt = target;
    ex.eprt_set = true;
    return "200 EPRT command successful.\r\n";
}

std::string modern_port_command(const SlotPtr& slot, std::string_view arg) {
    FtpSessionExtras& ex = *slot->ftp_extras;
    if (ex.epsv_all)
        return kEpsvAllInEffect;
    {
        std::lock_guard lock(ex.mutex);
        ex.passive.reset();
        ex.eprt_set = false;
    }
    return port_reply(arg, slot->port_arg);
}

int open_modern_data_connection(Server& server, ConnSlot& slot, const std::string& port_arg,
                                char type, long long size) {
    FtpSessionExtras& ex = *slot.ftp_extras;
    std::shared_ptr<PassiveListener> passive;
    SockAddr target;
    bool have_target = false;
    {
        std::lock_guard lock(ex.mutex);
        passive = std::move(ex.passive); // one passive port serves one data connection
        if (ex.eprt_set) {
            target = ex.eprt;
            have_target = true;
        }
    }
    slot.send_text(opening_reply(type, size));
    int fd = -1;
    if (passive) {
        fd = accept_passive(server, slot, *passive);
    } else {
        if (!have_target) {
            PortTarget t = decode_port_arg(port_arg);
            uint32_t addr_be = 0;
            if (parse_ipv4(t.address, addr_be) && t.port > 0 && t.port < 65536) {
                target = ipv4_addr(addr_be, static_cast<int>(t.port));
                have_target = true;
            }
        }
        // Only the client itself, and never a privileged port: no bounces to third hosts.
        if (have_target && same_host(target, ex.peer) && port_of(target) >= 1024)
            fd = connect_with_timeout(target, 8000);
    }
    if (fd < 0) {
        server.log_message("Data Connection failed!");
        slot.send_text(kCannotOpen);
    } else {
        ex.in_transfer = true; // an ABOR from now on ends the transfer
    }
    return fd;
}

} // namespace orv
