#include "sshd/sftp_subsystem.hpp"

#include "core/server.hpp"
#include "ftpd/ftp_context.hpp"
#include "sshd/sftp_requests.hpp"

#include <libssh/server.h>

#include <chrono>
#include <map>
#include <mutex>
#include <thread>

namespace orv {

namespace {

// How long one wait for the client's next bytes lasts before the stop flags are looked at.
constexpr int kReadWaitMs = 200;
// How long a reply may wait for the client to take it before the session is given up.
constexpr auto kSendLimit = std::chrono::seconds(120);
// The most read from the channel at once, and the reply size that is sent without waiting
// for the rest of a batch of pipelined requests.
constexpr size_t kReadRoom = 256 * 1024;
constexpr size_t kFlushAt = 256 * 1024;

// The busy marks of every SFTP session of one server, so that two sessions reading one file
// keep it marked until both are done. Held by the sessions; gone when the last one ends.
std::shared_ptr<FtpContext> shared_marks(Server& server) {
    static std::mutex mutex;
    static std::map<const Server*, std::weak_ptr<FtpContext>> all;
    std::lock_guard lock(mutex);
    for (auto it = all.begin(); it != all.end();)
        it = it->second.expired() ? all.erase(it) : std::next(it);
    std::shared_ptr<FtpContext> marks = all[&server].lock();
    if (!marks) {
        marks = std::make_shared<FtpContext>(server);
        all[&server] = marks;
    }
    return marks;
}

bool send_all(ssh_channel channel, const std::string& out, const ConnSlot& slot,
              const Server& server) {
    size_t done = 0;
    auto last = std::chrono::steady_clock::now();
    while (done < out.size()) {
        int n =
            ssh_channel_write(channel, out.data() + done,
                              static_cast<uint32_t>(std::min<size_t>(out.size() - done, 1 << 20)));
        if (n == SSH_ERROR || slot.stop.load() || server.stopping.load())
            return false;
        if (n > 0) {
            done += static_cast<size_t>(n);
            last = std::chrono::steady_clock::now();
            continue;
        }
        if (!ssh_channel_is_open(channel) || std::chrono::steady_clock::now() - last > kSendLimit)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

} // namespace

void serve_sftp(Server& server, const SlotPtr& slot, ssh_session, ssh_channel channel) {
    {
        sftp::Files files(server, slot, shared_marks(server));
        sftp::Session session(files);
        sftp::PacketBuffer in;
        std::string out;
        bool going = true;
        while (going && !slot->stop.load() && !server.stopping.load()) {
            char* at = in.space(kReadRoom);
            int n = ssh_channel_read_timeout(channel, at, static_cast<uint32_t>(kReadRoom), 0,
                                             kReadWaitMs);
            if (n == SSH_ERROR)
                break;
            if (n == 0) {
                if (ssh_channel_is_eof(channel) || !ssh_channel_is_open(channel))
                    break;
                continue;
            }
            in.commit(static_cast<size_t>(n));
            std::string_view packet;
            for (;;) {
                sftp::PacketBuffer::Next next = in.next(packet);
                if (next == sftp::PacketBuffer::Next::none)
                    break;
                // A packet larger than any request needs, or one that makes no sense, ends
                // the session: nothing after it can be trusted to be in step.
                if (next == sftp::PacketBuffer::Next::too_large || !session.handle(packet, out)) {
                    going = false;
                    break;
                }
                if (out.size() >= kFlushAt) {
                    if (!send_all(channel, out, *slot, server))
                        going = false;
                    out.clear();
                    if (!going)
                        break;
                }
            }
            if (!out.empty() && going && !send_all(channel, out, *slot, server))
                going = false;
            out.clear();
        }
        // The handles close here: busy marks go back, unfinished uploads are thrown away.
    }
    if (ssh_channel_is_open(channel)) {
        // Clients such as scp count a channel closed without an exit status as a failure.
        ssh_channel_request_send_exit_status(channel, 0);
        ssh_channel_send_eof(channel);
        ssh_channel_close(channel);
    }
}

} // namespace orv
