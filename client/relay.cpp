// The `telnet` relay: bytes go unchanged both ways between the user and a remote host until the
// host closes. What one side cannot take yet waits in that direction's queue, drained in order
// by a resend thread, so no byte overtakes another.
#include "client/relay.hpp"

#include "client/ftp_replies.hpp"
#include "client/host_lookup.hpp"
#include "client/outgoing.hpp"
#include "core/prompt.hpp"
#include "core/server.hpp"
#include "platform/name_lookup.hpp"
#include "platform/net.hpp"
#include "platform/text.hpp"
#include "vfs/tree.hpp"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>

namespace orv::client {
namespace {

// The host is not read while this much waits for the user; reading resumes below half of it.
constexpr size_t kHostPauseBytes = 1 << 20;

struct RelayParts {
    LinkPtr link;
    std::shared_ptr<RelayQueues> queues;
};

RelayParts relay_parts(const SessionPtr& session) {
    std::lock_guard lock(session->mutex);
    if (session->kind != LinkKind::Telnet)
        return {};
    return {session->link, session->relay};
}

void back_to_shell(Server& server, const SlotPtr& slot, const SessionPtr& session) {
    set_state(*session, *slot, kShell);
    send_shell_prompt(server, slot);
}

void arm_host(Server& server, const SlotPtr& slot, const SessionPtr& session, const LinkPtr& link,
              const std::shared_ptr<RelayQueues>& queues);

long send_to(const SlotPtr& slot, const LinkPtr& link, bool to_client, const char* data,
             size_t size) {
    return to_client ? slot->send_some(data, size) : link->send_some(data, size);
}

void wait_for(const SlotPtr& slot, const LinkPtr& link, bool to_client) {
    if (to_client) {
        int fd = slot->control_fd();
        if (fd >= 0)
            wait_writable(fd, 250);
    } else {
        link->wait_writable(250);
    }
}

// Drains one queue, head first; gives up (dropping the rest) when the user has gone or the
// destination is closed.
void resend_thread(Server& server, SlotPtr slot, SessionPtr session, LinkPtr link,
                   std::shared_ptr<RelayQueues> queues, bool to_client) {
    ResendQueue& q = to_client ? queues->to_client : queues->to_host;
    bool prompt = false;
    for (;;) {
        ResendQueue::Node* node;
        {
            std::lock_guard lock(queues->mutex);
            if (q.nodes.empty()) {
                q.running = false;
                if (to_client && queues->prompt_when_drained) {
                    queues->prompt_when_drained = false;
                    prompt = true;
                }
                break;
            }
            node = &q.nodes.front();
        }
        bool dropped = false;
        while (node->sent < node->data.size()) {
            long n = -1;
            if (!slot->ghost.load() && !server.stopping.load())
                n = send_to(slot, link, to_client, node->data.data() + node->sent,
                            node->data.size() - node->sent);
            if (n < 0) {
                dropped = true;
                break;
            }
            if (n == 0) {
                wait_for(slot, link, to_client);
                continue;
            }
            node->sent += static_cast<size_t>(n);
            std::lock_guard lock(queues->mutex);
            q.bytes -= static_cast<size_t>(n);
        }
        std::lock_guard lock(queues->mutex);
        if (dropped) {
            q.nodes.clear();
            q.bytes = 0;
        } else {
            q.nodes.pop_front();
        }
        if (to_client && queues->host_paused && q.bytes <= kHostPauseBytes / 2) {
            queues->host_paused = false;
            server.post([&server, slot, session, link, queues] {
                if (link_current(*session, link))
                    arm_host(server, slot, session, link, queues);
            });
        }
    }
    if (prompt)
        back_to_shell(server, slot, session);
}

// Sends `data` now when nothing waits in that direction, else queues it behind what waits. What
// a user who has gone cannot take is dropped.
void forward(Server& server, const SlotPtr& slot, const SessionPtr& session, const LinkPtr& link,
             const std::shared_ptr<RelayQueues>& queues, bool to_client, const char* data,
             size_t size) {
    std::lock_guard lock(queues->mutex);
    ResendQueue& q = to_client ? queues->to_client : queues->to_host;
    if (q.running || !q.nodes.empty()) {
        q.nodes.push_back({std::string(data, size), 0});
        q.bytes += size;
    } else {
        long n = send_to(slot, link, to_client, data, size);
        size_t sent = n > 0 ? static_cast<size_t>(n) : 0;
        if (sent >= size || slot->ghost.load())
            return;
        q.nodes.push_back({std::string(data, size), sent});
        q.bytes += size - sent;
        q.running = true;
        bool ok = server.workers.spawn([&server, slot, session, link, queues, to_client] {
            resend_thread(server, slot, session, link, queues, to_client);
        });
        if (!ok) {
            server.log_message(
                to_client ? "**** Failed to create telnet out resend host to client Thread ****"
                          : "**** Failed to create telnet out resend client to host Thread ****");
            q.nodes.clear();
            q.bytes = 0;
            q.running = false;
        }
    }
    if (to_client && q.bytes > kHostPauseBytes)
        queues->host_paused = true;
}

// The host has gone (closed, or an error on its socket): the user returns to the shell once
// everything the host sent has reached them.
void end_relay(Server& server, const SlotPtr& slot, const SessionPtr& session, const LinkPtr& link,
               bool unknown) {
    std::shared_ptr<RelayQueues> queues;
    {
        std::lock_guard lock(session->mutex);
        if (session->link != link) {
            link->close();
            return;
        }
        session->link = nullptr;
        session->kind = LinkKind::None;
        queues = session->relay;
    }
    server.log.logf(unknown ? "Outgoing Telnet Close port %i (unknown winsock msg)"
                            : "Outgoing Telnet Close port %i",
                    link->number());
    slot->out_socket = -1;
    link->close();
    bool wait_for_queue = false;
    if (queues) {
        std::lock_guard lock(queues->mutex);
        wait_for_queue = queues->to_client.running;
        queues->prompt_when_drained = wait_for_queue;
    }
    if (!wait_for_queue)
        back_to_shell(server, slot, session);
}

void on_host_ready(Server& server, const SlotPtr& slot, const SessionPtr& session,
                   const LinkPtr& link, const std::shared_ptr<RelayQueues>& queues) {
    int error = 0;
    char* buffer = server.recv_buffer.data();
    ssize_t n = link->receive(buffer, Server::kReceiveSize, error);
    if (n == 0) {
        end_relay(server, slot, session, link, false);
        return;
    }
    if (n < 0) {
        if (error == EAGAIN || error == EWOULDBLOCK)
            arm_host(server, slot, session, link, queues);
        else
            end_relay(server, slot, session, link, true);
        return;
    }
    if (!link_current(*session, link))
        return;
    forward(server, slot, session, link, queues, true, buffer, static_cast<size_t>(n));
    std::memset(buffer, 0, Server::kReceiveSize);
    bool paused;
    {
        std::lock_guard lock(queues->mutex);
        paused = queues->host_paused;
    }
    if (!paused)
        arm_host(server, slot, session, link, queues);
}

void arm_host(Server& server, const SlotPtr& slot, const SessionPtr& session, const LinkPtr& link,
              const std::shared_ptr<RelayQueues>& queues) {
    link->arm([&server, slot, session, link, queues] {
        on_host_ready(server, slot, session, link, queues);
    });
}

void open_thread(Server& server, const SlotPtr& slot, const SessionPtr& session, std::string arg) {
    std::string host = next_word(arg);
    int port = port_number(next_word(arg), 23);
    auto stop = [&] { back_to_shell(server, slot, session); };
    auto done = [&] {
        server.log.logf("(%i) Outgoing Telnet open thread complete", slot->socket.load());
    };
    uint32_t addr = 0;
    if (!dotted_address(host, addr)) {
        slot->send_text(strf("Looking up (%s)...\r\n", host.c_str()));
        if (!resolve_ipv4(host, addr, kLookupTimeoutMs, &slot->stop)) {
            server.log_message("*** DNS Failed! ***");
            slot->send_text("DNS failed!\r\n");
            stop();
            done();
            return;
        }
        host = ipv4_text(addr);
    }
    slot->send_text(strf("Connecting to %s ...\r\n", host.c_str()));
    auto give_up = [&](const std::string& text) {
        slot->out_socket = -1;
        server.log_message(text);
        stop();
        done();
    };
    int fd = tcp_socket();
    if (fd < 0)
        return give_up(strf("(%s) Outgoing Telnet Could not get a socket to use!", host.c_str()));
    if (bind_any(fd, 0) != 0) {
        close_fd(fd);
        return give_up("(-1) Outgoing Telnet Bind failed");
    }
    if (!set_keepalive(fd)) {
        close_fd(fd);
        return give_up("(-1) Outgoing Telnet set socket opt failed");
    }
    set_state(*session, *slot, kRelayConnecting);
    int error =
        port > 0 ? connect_ipv4(fd, addr, port, kConnectTimeoutMs, &slot->stop) : ECONNREFUSED;
    if (error != 0) {
        close_fd(fd);
        slot->out_socket = -1;
        slot->send_text("Connection refused\r\n");
        // The client's prompt and then the shell's: the user sees "ftp> # ".
        slot->send_text("ftp> ");
        stop();
        done();
        return;
    }
    set_nodelay(fd);
    auto link = std::make_shared<OutLink>(fd);
    auto queues = std::make_shared<RelayQueues>();
    {
        std::lock_guard lock(session->mutex);
        if (session->ended || server.stopping.load()) {
            link->close(); // the user's session went away meanwhile
            done();
            return;
        }
        session->link = link;
        session->kind = LinkKind::Telnet;
        session->relay = queues;
        slot->out_socket = link->number();
        slot->state = kRelaying;
    }
    session->state_changed.notify_all();
    server.post([&server, slot, session, link, queues] {
        if (!link_current(*session, link))
            return;
        if (!link->watch(server.io())) {
            server.log_message("could not set up telnet_control message handler");
            end_relay(server, slot, session, link, false);
            return;
        }
        arm_host(server, slot, session, link, queues);
    });
    done();
}

} // namespace

bool start_telnet(Server& server, const SlotPtr& slot, std::string arg) {
    SessionPtr session = session_of(slot);
    return server.workers.spawn([&server, slot, session, arg = std::move(arg)]() mutable {
        open_thread(server, slot, session, std::move(arg));
    });
}

void relay_input(Server& server, const SlotPtr& slot, const char* data, size_t size) {
    SessionPtr session = slot->outgoing();
    if (!session || size == 0)
        return;
    RelayParts parts = relay_parts(session);
    if (!parts.link || !parts.queues || !parts.link->is_open())
        return;
    forward(server, slot, session, parts.link, parts.queues, false, data, size);
}

void relay_logoff(const SlotPtr& slot, const SessionPtr& session) {
    LinkPtr link;
    {
        std::lock_guard lock(session->mutex);
        if (session->kind == LinkKind::Telnet) {
            link = std::move(session->link);
            session->kind = LinkKind::None;
        }
    }
    slot->out_socket = -1;
    if (link)
        link->close();
}

} // namespace orv::client
