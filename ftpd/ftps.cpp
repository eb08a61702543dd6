#include "ftpd/ftps.hpp"

#include "core/extensions.hpp"
#include "core/reactor.hpp"
#include "core/server.hpp"
#include "ftpd/control_connection.hpp"
#include "ftpd/data_connection.hpp"
#include "ftpd/modern_session.hpp"
#include "ftpd/replies.hpp"
#include "platform/net.hpp"
#include "platform/text.hpp"
#include "platform/tls.hpp"

#include <charconv>
#include <cstdlib>
#include <filesystem>
#include <functional>

namespace orv {

namespace {

constexpr const char* kAuthOk = "234 AUTH TLS OK, start the TLS negotiation.\r\n";
constexpr const char* kAuthUnknown = "504 AUTH type not supported.\r\n";
constexpr const char* kAuthAgain = "503 TLS is already on for this connection.\r\n";
constexpr const char* kNeedAuth = "503 Send AUTH TLS first.\r\n";
constexpr const char* kNeedPbsz = "503 Send PBSZ first.\r\n";
constexpr const char* kPbszBad = "501 PBSZ needs a number.\r\n";
constexpr const char* kPbszOk = "200 PBSZ=0\r\n";
constexpr const char* kProtPrivate = "200 Protection level set to Private.\r\n";
constexpr const char* kProtClear = "200 Protection level set to Clear.\r\n";
constexpr const char* kProtUnsupported = "536 Only the levels C and P are offered.\r\n";
constexpr const char* kProtUnknown = "504 Unknown protection level.\r\n";
constexpr const char* kCccRefused = "534 The control connection stays encrypted.\r\n";
constexpr const char* kLoginNeedsTls =
    "530 This server takes logins over TLS only: send AUTH TLS first.\r\n";
constexpr const char* kDataNeedsTls =
    "521 Data connections must be protected: send PROT P first.\r\n";
constexpr const char* kDataTlsFailed = "425 Can't open data connection: TLS failed.\r\n";
constexpr const char* kDataNotResumed =
    "425 Can't open data connection: it must resume the control connection's TLS session.\r\n";

// The TLS stream as the control connection's transport.
class TlsControl : public ControlTransport {
  public:
    explicit TlsControl(std::shared_ptr<TlsStream> stream) : stream_(std::move(stream)) {}
    long receive(void* data, size_t size) override { return stream_->receive(data, size); }
    long send(const void* data, size_t size) override { return stream_->send(data, size); }
    bool pending() const override { return stream_->pending(); }

  private:
    std::shared_ptr<TlsStream> stream_;
};

bool is_data_verb(const std::string& verb) {
    return verb == "RETR" || verb == "STOR" || verb == "APPE" || verb == "STOU" || verb == "LIST" ||
           verb == "NLST" || verb == "MLSD";
}

std::filesystem::path beside_start(const std::string& start_dir, const std::string& name) {
    std::filesystem::path p(name);
    return p.is_absolute() ? p : std::filesystem::path(start_dir) / p;
}

// Runs the handshake on a thread of its own (a stalled or garbage-sending client costs only its
// own session), then goes back to the event thread: `then` runs there with the stream, or the
// session ends.
void handshake_then(const FtpContextPtr& ctx, const SlotPtr& slot,
                    std::function<void(const std::shared_ptr<TlsStream>&)> then) {
    auto stream = std::make_shared<TlsStream>(ctx->tls, slot->control_fd());
    bool started = ctx->server.workers.spawn([ctx, slot, stream, then = std::move(then)] {
        std::string error;
        bool ok = stream->handshake(tls_handshake_timeout_ms(), error, &slot->stop);
        ctx->server.post([ctx, slot, stream, ok, error, then] {
            if (!slot->control_open())
                return;
            if (!ok) {
                ctx->server.log.logf("(%i) TLS handshake failed: %s", slot->socket.load(),
                                     log_safe(error).c_str());
                close_after(*ctx, slot);
                return;
            }
            slot->set_transport(std::make_shared<TlsControl>(stream));
            slot->ftp_extras->ftps->control = stream;
            ctx->server.log.logf("(%i) TLS on: %s", slot->socket.load(),
                                 stream->description().c_str());
            then(stream);
            resume_control(ctx->server, slot);
        });
    });
    if (!started) {
        ctx->server.log_message("**** Failed to create ftp in TLS Thread ****");
        slot->shutdown_control();
    }
}

} // namespace

int tls_handshake_timeout_ms() {
    if (const char* text = std::getenv("ORVANE_TLS_HANDSHAKE_MS")) {
        int ms = std::atoi(text);
        if (ms > 0)
            return ms;
    }
    return 10000;
}

std::shared_ptr<TlsContext> make_ftps_context(const Extensions& ext, const std::string& start_dir,
                                              std::string& error) {
    if (ext.tls_certificate.empty() || ext.tls_private_key.empty()) {
        error = "tls_certificate and tls_private_key must both be set";
        return nullptr;
    }
    return TlsContext::create(beside_start(start_dir, ext.tls_certificate).string(),
                              beside_start(start_dir, ext.tls_private_key).string(), error);
}

std::string auth_reply(const std::string& arg, bool secured, bool& start_handshake) {
    start_handshake = false;
    std::string upper = to_upper_ascii(arg);
    if (upper != "TLS" && upper != "SSL" && upper != "TLS-C")
        return kAuthUnknown;
    if (secured)
        return kAuthAgain;
    start_handshake = true;
    return kAuthOk;
}

std::string pbsz_reply(const std::string& arg, bool secured, bool& pbsz) {
    if (!secured)
        return kNeedAuth;
    unsigned long long size = 0;
    auto [end, ec] = std::from_chars(arg.data(), arg.data() + arg.size(), size);
    if (arg.empty() || ec != std::errc() || end != arg.data() + arg.size())
        return kPbszBad;
    // A stream protocol needs no buffer: whatever the client offers, the size is 0.
    pbsz = true;
    return kPbszOk;
}

std::string prot_reply(const std::string& arg, bool secured, bool pbsz, bool& protect) {
    if (!secured)
        return kNeedAuth;
    if (!pbsz)
        return kNeedPbsz;
    std::string upper = to_upper_ascii(arg);
    if (upper == "P") {
        protect = true;
        return kProtPrivate;
    }
    if (upper == "C") {
        protect = false;
        return kProtClear;
    }
    if (upper == "S" || upper == "E")
        return kProtUnsupported;
    return kProtUnknown;
}

const char* tls_policy_refusal(const std::string& verb, bool secured, bool protect_data,
                               bool require_tls) {
    if (!require_tls)
        return nullptr;
    // The same answer for every name: it says nothing about which accounts exist.
    if ((verb == "USER" || verb == "PASS") && !secured)
        return kLoginNeedsTls;
    if (is_data_verb(verb) && !protect_data)
        return kDataNeedsTls;
    return nullptr;
}

bool ftps_dispatch(const FtpContextPtr& ctx, const SlotPtr& slot, const std::string& verb,
                   const std::string& arg) {
    FtpsSession& tls = *slot->ftp_extras->ftps;
    bool secured = tls.control != nullptr;
    if (verb == "AUTH") {
        bool start = false;
        std::string reply = auth_reply(arg, secured, start);
        if (!start) {
            finish_command(*slot, reply);
            return true;
        }
        // Whatever the client sent after AUTH was sent in the clear: it is not taken as
        // coming over TLS.
        slot->line_buf.clear();
        slot->reading_paused = true;
        finish_command(*slot, reply);
        handshake_then(ctx, slot, [](const std::shared_ptr<TlsStream>&) {});
        return true;
    }
    if (verb == "PBSZ") {
        finish_command(*slot, pbsz_reply(arg, secured, tls.pbsz));
        return true;
    }
    if (verb == "PROT") {
        bool protect = tls.protect_data;
        std::string reply = prot_reply(arg, secured, tls.pbsz, protect);
        tls.protect_data = protect;
        finish_command(*slot, reply);
        return true;
    }
    if (verb == "CCC") {
        finish_command(*slot, secured ? kCccRefused : kNeedAuth);
        return true;
    }
    if (const char* refusal = tls_policy_refusal(verb, secured, tls.protect_data,
                                                 ctx->server.settings.ext.require_tls)) {
        finish_command(*slot, refusal);
        return true;
    }
    return false;
}

void start_implicit_tls(const FtpContextPtr& ctx, const SlotPtr& slot) {
    slot->reading_paused = true;
    handshake_then(ctx, slot, [slot](const std::shared_ptr<TlsStream>&) {
        // On this port everything is protected from the start, the data too.
        FtpsSession& tls = *slot->ftp_extras->ftps;
        tls.pbsz = true;
        tls.protect_data = true;
        slot->send_text(ftp_text::kGreeting);
    });
}

DataLink::DataLink() = default;
DataLink::~DataLink() {
    close_link(*this);
}
DataLink::DataLink(DataLink&&) noexcept = default;
DataLink& DataLink::operator=(DataLink&&) noexcept = default;

DataLink open_data_link(Server& server, ConnSlot& slot, const FtpJob& job, long long size) {
    DataLink link;
    link.fd = open_data_connection(server, slot, job.port_arg, job.type, size);
    FtpsSession* tls = slot.ftp_extras ? slot.ftp_extras->ftps.get() : nullptr;
    if (link.fd < 0 || !tls || !tls->protect_data || !tls->control)
        return link;
    link.tls = std::make_unique<TlsStream>(tls->control->context(), link.fd);
    link.tls->issue_no_tickets();
    std::string error;
    const char* refusal = nullptr;
    if (!link.tls->handshake(tls_handshake_timeout_ms(), error, &slot.stop)) {
        server.log.logf("(%i) Data connection TLS failed: %s", job.socket, log_safe(error).c_str());
        refusal = kDataTlsFailed;
    } else if (tls->require_reuse && !link.tls->resumed_from(*tls->control)) {
        // Only the client that owns the control connection holds its session: anyone else
        // who reached the data port first is sent away.
        server.log.logf("(%i) Data connection refused: no TLS session reuse", job.socket);
        refusal = kDataNotResumed;
    }
    if (refusal) {
        link.tls.reset();
        close_fd(link.fd);
        link.fd = -1;
        slot.ftp_extras->in_transfer = false;
        slot.send_text(refusal);
    }
    return link;
}

MoveResult link_send_file(DataLink& link, int file_fd, long long size, const MoveControl& control) {
    if (link.tls)
        return link.tls->send_file(file_fd, size, control);
    return send_file_to_socket(file_fd, link.fd, size, control);
}

MoveResult link_receive_file(DataLink& link, int file_fd, const MoveControl& control) {
    if (link.tls)
        return link.tls->receive_to_file(file_fd, control);
    return receive_socket_to_file(link.fd, file_fd, control);
}

bool link_send_all(DataLink& link, const std::string& data, const std::atomic<int>* stop) {
    if (link.tls)
        return link.tls->send_all(data.data(), data.size(), stop, kDataIdleLimitMs);
    return send_all(link.fd, data.data(), data.size(), stop, kDataIdleLimitMs);
}

void close_link(DataLink& link) {
    if (link.tls) {
        link.tls->close_notify();
        link.tls.reset();
    }
    if (link.fd >= 0) {
        close_fd(link.fd);
        link.fd = -1;
    }
}

} // namespace orv
