#pragma once
// The brute-force defence's bookkeeping per client address, apart from sockets and clocks (the
// time is passed in): how many connections an address holds, its recent failed logins, and its
// bans, each repeat ban twice as long as the one before.
#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace orv {

class GuardPolicy {
  public:
    using Time = std::chrono::steady_clock::time_point;
    using Seconds = std::chrono::seconds;

    struct Config {
        int ban_after = 0;       // failed logins that start a ban; 0 = never ban
        Seconds first_ban{600};  // length of an address's first ban
        int max_per_address = 0; // connections one address may hold at once; 0 = no limit
    };
    // Failures older than this are forgotten; an address with no failure for `strike_memory`
    // starts again from the first ban length.
    static constexpr Seconds kFailureMemory{3600};
    static constexpr Seconds kStrikeMemory{86400};
    static constexpr Seconds kLongestBan{86400};

    enum class Admission { Allowed, Banned, Crowded };
    struct BanStart {
        Seconds length;
        int strike; // 1 for the first ban, 2 for the next, ...
    };
    struct BanEnd {
        std::string key;
        uint64_t refused; // connections turned away during the ban
    };

    void configure(const Config& config) { config_ = config; }
    const Config& config() const { return config_; }

    // A new connection from `key`. Allowed ones are counted until release(); `first_refusal`
    // tells whether this is the first refusal for crowding since the address last got in.
    Admission admit(const std::string& key, Time now, bool* first_refusal = nullptr);
    void release(const std::string& key);
    bool banned(const std::string& key, Time now) const;

    // A failed login from `key`; the ban it starts, if any.
    std::optional<BanStart> failure(const std::string& key, Time now);
    // A successful login forgives the failures counted so far (not the bans).
    void success(const std::string& key);

    // Ends the bans that are over and forgets addresses that have nothing left to remember.
    std::vector<BanEnd> expire(Time now);
    // When the next ban ends, if any runs.
    std::optional<Time> next_ban_end() const;
    size_t tracked() const { return entries_.size(); }
    int connections(const std::string& key) const;

  private:
    struct Entry {
        int connections = 0;
        int failures = 0;
        Time last_failure{};
        int strikes = 0;
        bool banned = false;
        Time banned_until{};
        uint64_t refused = 0;
        bool crowd_refused = false;
    };
    bool idle(const Entry& e, Time now) const;
    // Forgets idle addresses once the table has grown, so that many addresses that came once
    // cannot make it grow without end.
    void prune_if_large(Time now);
    Config config_;
    size_t prune_at_ = 1024;
    std::unordered_map<std::string, Entry> entries_;
};

// The key under which an address is counted: an IPv4 address as it is (also when it comes as
// an IPv4-mapped IPv6 address), an IPv6 address by its /64 network, since one host usually
// holds a whole /64. Text that is no address is its own key.
std::string guard_key(const std::string& address);

} // namespace orv
