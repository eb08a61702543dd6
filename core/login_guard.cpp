#include "core/login_guard.hpp"

#include "core/guard_policy.hpp"
#include "core/server.hpp"
#include "platform/text.hpp"

#include <arpa/inet.h>
#include <asio.hpp>
#include <ctime>
#include <deque>
#include <mutex>
#include <sys/socket.h>
#include <thread>

namespace orv {

// What the guard, its tickets and its timers share; tickets may outlive the guard.
struct GuardShared {
    std::mutex mutex;
    AuthSettings settings;
    GuardPolicy policy;
    // Slow jobs waiting for a worker, and how many workers take them now.
    std::deque<std::function<void()>> slow_jobs;
    int slow_workers = 0;
    bool expiry_scheduled = false;
};

namespace {

std::string peer_address_text(int fd) {
    sockaddr_storage ss{};
    socklen_t len = sizeof ss;
    if (::getpeername(fd, reinterpret_cast<sockaddr*>(&ss), &len) != 0)
        return {};
    char text[INET6_ADDRSTRLEN] = {};
    if (ss.ss_family == AF_INET)
        inet_ntop(AF_INET, &reinterpret_cast<sockaddr_in*>(&ss)->sin_addr, text, sizeof text);
    else if (ss.ss_family == AF_INET6)
        inet_ntop(AF_INET6, &reinterpret_cast<sockaddr_in6*>(&ss)->sin6_addr, text, sizeof text);
    return text;
}

std::string utc_stamp() {
    std::time_t now = std::time(nullptr);
    std::tm tm{};
    gmtime_r(&now, &tm);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &tm);
    return text;
}

bool session_gone(const ConnSlot& slot) {
    return !slot.control_open() || slot.ghost != 0;
}

} // namespace

void settle_gone_session(ConnSlot& slot) {
    // Back at the login, with nothing typed ahead: a ghost frees such a session at once.
    slot.line_buf.clear();
    slot.state = 1;
}

const char* service_name(Service service) {
    switch (service) {
    case Service::Ftp:
        return "FTP";
    case Service::Telnet:
        return "Telnet";
    }
    return "?";
}

AddressTicket::AddressTicket(std::shared_ptr<GuardShared> shared, std::string address,
                             std::string key)
    : shared_(std::move(shared)), address_(std::move(address)), key_(std::move(key)) {}

AddressTicket::~AddressTicket() {
    std::lock_guard lock(shared_->mutex);
    shared_->policy.release(key_);
}

LoginGuard::LoginGuard(Server& server)
    : server_(server), shared_(std::make_shared<GuardShared>()) {}

LoginGuard::~LoginGuard() = default;

void LoginGuard::configure(const AuthSettings& settings) {
    std::lock_guard lock(shared_->mutex);
    shared_->settings = settings;
    GuardPolicy::Config config;
    config.ban_after = settings.ban_after;
    config.first_ban = std::chrono::seconds(settings.ban_seconds);
    config.max_per_address = settings.max_per_address;
    shared_->policy.configure(config);
}

AuthSettings LoginGuard::settings() const {
    std::lock_guard lock(shared_->mutex);
    return shared_->settings;
}

std::shared_ptr<AddressTicket> LoginGuard::admit(int fd, bool& refused) {
    refused = false;
    {
        std::lock_guard lock(shared_->mutex);
        if (!shared_->settings.guard_on())
            return nullptr;
    }
    std::string address = peer_address_text(fd);
    std::string key = guard_key(address);
    bool first_refusal = false;
    GuardPolicy::Admission admission;
    int limit = 0;
    {
        std::lock_guard lock(shared_->mutex);
        if (!shared_->settings.guard_on())
            return nullptr;
        limit = shared_->settings.max_per_address;
        admission = shared_->policy.admit(key, Clock::now(), &first_refusal);
    }
    if (admission == GuardPolicy::Admission::Allowed)
        return std::make_shared<AddressTicket>(shared_, std::move(address), std::move(key));
    // Refused connections are not logged one by one (a banned client could flood the log):
    // the ban's end counts them, and crowding is logged once until the address gets in again.
    refused = true;
    if (first_refusal)
        server_.log.logf("Address %s holds %i connections: further ones are refused", key.c_str(),
                         limit);
    return nullptr;
}

bool LoginGuard::banned(const ConnSlot& slot) const {
    std::shared_ptr<AddressTicket> ticket = slot.guard_ticket();
    if (!ticket)
        return false;
    std::lock_guard lock(shared_->mutex);
    return shared_->policy.banned(ticket->key(), Clock::now());
}

void LoginGuard::login_failed(const SlotPtr& slot, std::string_view account,
                              Clock::time_point started, std::function<void()> reply,
                              std::function<void()> gone) {
    std::shared_ptr<AddressTicket> ticket = slot->guard_ticket();
    AuthSettings settings;
    std::optional<GuardPolicy::BanStart> ban;
    {
        std::lock_guard lock(shared_->mutex);
        settings = shared_->settings;
        if (ticket)
            ban = shared_->policy.failure(ticket->key(), Clock::now());
    }
    if (ticket && settings.auth_log)
        server_.log.logf("%s Login failure from %s service %s user (%s)", utc_stamp().c_str(),
                         ticket->address().c_str(), service_name(slot->service),
                         log_safe(account.substr(0, 64)).c_str());
    if (ban) {
        server_.log.logf("Address %s banned for %lli seconds after %i failed logins (ban %i)",
                         ticket->key().c_str(), static_cast<long long>(ban->length.count()),
                         settings.ban_after, ban->strike);
        schedule_expiry();
    }
    if (settings.login_delay_ms <= 0) {
        if (session_gone(*slot)) {
            settle_gone_session(*slot);
            gone();
            return;
        }
        reply();
        return;
    }
    // The session takes no input while its reply waits (FTP is busy already; Telnet lines
    // stay typed ahead).
    slot->state = 10;
    auto timer = std::make_shared<asio::steady_timer>(server_.io());
    timer->expires_at(started + std::chrono::milliseconds(settings.login_delay_ms));
    timer->async_wait([timer, slot, reply = std::move(reply),
                       gone = std::move(gone)](const asio::error_code& ec) {
        if (ec)
            return;
        if (session_gone(*slot)) {
            settle_gone_session(*slot);
            gone();
            return;
        }
        reply();
    });
}

void LoginGuard::login_succeeded(const ConnSlot& slot) {
    std::shared_ptr<AddressTicket> ticket = slot.guard_ticket();
    if (!ticket)
        return;
    std::lock_guard lock(shared_->mutex);
    shared_->policy.success(ticket->key());
}

void LoginGuard::schedule_expiry() {
    std::optional<Clock::time_point> when;
    {
        std::lock_guard lock(shared_->mutex);
        if (shared_->expiry_scheduled)
            return;
        when = shared_->policy.next_ban_end();
        if (!when)
            return;
        shared_->expiry_scheduled = true;
    }
    auto timer = std::make_shared<asio::steady_timer>(server_.io());
    timer->expires_at(*when);
    std::weak_ptr<GuardShared> weak = shared_;
    timer->async_wait([this, timer, weak](const asio::error_code& ec) {
        std::shared_ptr<GuardShared> shared = weak.lock();
        if (ec || !shared)
            return;
        std::vector<GuardPolicy::BanEnd> ended;
        {
            std::lock_guard lock(shared->mutex);
            shared->expiry_scheduled = false;
            ended = shared->policy.expire(Clock::now());
        }
        for (const GuardPolicy::BanEnd& end : ended)
            server_.log.logf("Ban on address %s ended (%llu connections refused)", end.key.c_str(),
                             static_cast<unsigned long long>(end.refused));
        schedule_expiry();
    });
}

void LoginGuard::run_slow(std::function<void()> job) {
    const int most = static_cast<int>(std::max(2u, std::thread::hardware_concurrency()));
    {
        std::lock_guard lock(shared_->mutex);
        shared_->slow_jobs.push_back(std::move(job));
        if (shared_->slow_workers >= most)
            return;
        ++shared_->slow_workers;
    }
    std::shared_ptr<GuardShared> shared = shared_;
    auto drain = [shared] {
        for (;;) {
            std::function<void()> next;
            {
                std::lock_guard lock(shared->mutex);
                if (shared->slow_jobs.empty()) {
                    --shared->slow_workers;
                    return;
                }
                next = std::move(shared->slow_jobs.front());
                shared->slow_jobs.pop_front();
            }
            next();
        }
    };
    if (!server_.workers.spawn(drain))
        drain(); // no thread to be had: better slow than never
}

} // namespace orv
