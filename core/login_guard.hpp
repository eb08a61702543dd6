#pragma once
// The brute-force defence of the login services (FTP, Telnet, and any later one): per-address
// connection limits and bans at accept, a pause before a failed login's reply, and a log line
// per failed login that names the client's address. Everything is off until settings.ini's
// `[Extensions]` keys turn it on. Also runs the slow step of a login (checking a password hash)
// on a few worker threads, so that the event thread never waits for it.
#include "core/auth_settings.hpp"
#include "core/conn_slot.hpp"

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace orv {

class Server;
struct GuardShared;

// One admitted connection from one address; the address's count drops when it is dropped.
class AddressTicket {
  public:
    AddressTicket(std::shared_ptr<GuardShared> shared, std::string address, std::string key);
    ~AddressTicket();
    AddressTicket(const AddressTicket&) = delete;
    AddressTicket& operator=(const AddressTicket&) = delete;
    const std::string& address() const { return address_; }
    const std::string& key() const { return key_; }

  private:
    std::shared_ptr<GuardShared> shared_;
    std::string address_;
    std::string key_;
};

class LoginGuard {
  public:
    using Clock = std::chrono::steady_clock;

    explicit LoginGuard(Server& server);
    ~LoginGuard();
    LoginGuard(const LoginGuard&) = delete;
    LoginGuard& operator=(const LoginGuard&) = delete;

    void configure(const AuthSettings& settings);
    AuthSettings settings() const;

    // A connection just accepted on `fd` (event thread). Returns the ticket the session keeps,
    // or null when the guard is off; sets `refused` when the connection is to be closed at once
    // (its address is banned or holds its share of connections already).
    std::shared_ptr<AddressTicket> admit(int fd, bool& refused);

    // True when the session's address is banned now: its logins fail without a password check.
    bool banned(const ConnSlot& slot) const;
    // A failed login (event thread): counted against the address (a ban may start), logged for
    // the auth log, and `reply` is run on the event thread once the pause counted from
    // `started` is over, at once when no pause is set. A session that is gone by then gets no
    // reply: it is settled, and `gone` runs instead (the service logs its failure line).
    void login_failed(const SlotPtr& slot, std::string_view account, Clock::time_point started,
                      std::function<void()> reply, std::function<void()> gone);
    void login_succeeded(const ConnSlot& slot);

    // Runs `job` on a worker thread; at most a few run at once, the rest wait their turn.
    void run_slow(std::function<void()> job);

  private:
    void schedule_expiry();
    Server& server_;
    std::shared_ptr<GuardShared> shared_;
};

// A session that went away while its login was decided (event thread): it is put back at the
// login with nothing typed ahead, so that nothing runs for it and it can be freed.
void settle_gone_session(ConnSlot& slot);

// "FTP", "Telnet": the service as the auth log names it.
const char* service_name(Service service);

} // namespace orv
