#include "core/guard_policy.hpp"

#include <algorithm>
#include <arpa/inet.h>
#include <cstring>

namespace orv {

GuardPolicy::Admission GuardPolicy::admit(const std::string& key, Time now, bool* first_refusal) {
    if (first_refusal)
        *first_refusal = false;
    auto it = entries_.find(key);
    if (it != entries_.end()) {
        Entry& e = it->second;
        if (e.banned && now < e.banned_until) {
            ++e.refused;
            return Admission::Banned;
        }
        if (config_.max_per_address > 0 && e.connections >= config_.max_per_address) {
            if (first_refusal)
                *first_refusal = !e.crowd_refused;
            e.crowd_refused = true;
            return Admission::Crowded;
        }
    } else if (config_.max_per_address <= 0 && config_.ban_after <= 0) {
        // Nothing to count for: the address is not remembered at all.
        return Admission::Allowed;
    }
    prune_if_large(now);
    Entry& e = entries_[key];
    ++e.connections;
    e.crowd_refused = false;
    return Admission::Allowed;
}

void GuardPolicy::release(const std::string& key) {
    auto it = entries_.find(key);
    if (it != entries_.end() && it->second.connections > 0)
        --it->second.connections;
}

bool GuardPolicy::banned(const std::string& key, Time now) const {
    auto it = entries_.find(key);
    return it != entries_.end() && it->second.banned && now < it->second.banned_until;
}

std::optional<GuardPolicy::BanStart> GuardPolicy::failure(const std::string& key, Time now) {
    if (config_.ban_after <= 0)
        return std::nullopt;
    prune_if_large(now);
    Entry& e = entries_[key];
    if (e.banned && now < e.banned_until)
        return std::nullopt; // already banned: nothing more to count
    if (e.failures > 0 && now - e.last_failure > kFailureMemory)
        e.failures = 0;
    if (e.strikes > 0 && e.last_failure != Time{} && now - e.last_failure > kStrikeMemory)
        e.strikes = 0;
    e.last_failure = now;
    if (++e.failures < config_.ban_after)
        return std::nullopt;
    e.failures = 0;
    ++e.strikes;
    // Doubling per repeat, without overflowing however often an address comes back.
    Seconds length = config_.first_ban;
    for (int i = 1; i < e.strikes && length < kLongestBan; ++i)
        length *= 2;
    length = std::clamp(length, Seconds{1}, std::max(kLongestBan, config_.first_ban));
    e.banned = true;
    e.banned_until = now + length;
    e.refused = 0;
    return BanStart{length, e.strikes};
}

void GuardPolicy::success(const std::string& key) {
    auto it = entries_.find(key);
    if (it != entries_.end())
        it->second.failures = 0;
}

bool GuardPolicy::idle(const Entry& e, Time now) const {
    if (e.connections > 0 || e.banned)
        return false;
    bool failures_live = e.failures > 0 && now - e.last_failure <= kFailureMemory;
    bool strikes_live = e.strikes > 0 && now - e.last_failure <= kStrikeMemory;
    return !failures_live && !strikes_live;
}

void GuardPolicy::prune_if_large(Time now) {
    if (entries_.size() < prune_at_)
        return;
    std::erase_if(entries_, [&](const auto& item) { return idle(item.second, now); });
    prune_at_ = std::max<size_t>(1024, entries_.size() * 2);
}

std::vector<GuardPolicy::BanEnd> GuardPolicy::expire(Time now) {
    std::vector<BanEnd> ended;
    for (auto it = entries_.begin(); it != entries_.end();) {
        Entry& e = it->second;
        if (e.banned && now >= e.banned_until) {
            e.banned = false;
            ended.push_back({it->first, e.refused});
            e.refused = 0;
        }
        if (idle(e, now))
            it = entries_.erase(it);
        else
            ++it;
    }
    std::sort(ended.begin(), ended.end(),
              [](const BanEnd& a, const BanEnd& b) { return a.key < b.key; });
    return ended;
}

std::optional<GuardPolicy::Time> GuardPolicy::next_ban_end() const {
    std::optional<Time> next;
    for (const auto& [key, e] : entries_)
        if (e.banned && (!next || e.banned_until < *next))
            next = e.banned_until;
    return next;
}

int GuardPolicy::connections(const std::string& key) const {
    auto it = entries_.find(key);
    return it == entries_.end() ? 0 : it->second.connections;
}

std::string guard_key(const std::string& address) {
    in6_addr v6{};
    if (inet_pton(AF_INET6, address.c_str(), &v6) != 1)
        return address;
    static const unsigned char kMapped[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};
    char text[INET6_ADDRSTRLEN] = {};
    if (std::memcmp(v6.s6_addr, kMapped, sizeof kMapped) == 0) {
        inet_ntop(AF_INET, v6.s6_addr + 12, text, sizeof text);
        return text;
    }
    std::memset(v6.s6_addr + 8, 0, 8);
    inet_ntop(AF_INET6, &v6, text, sizeof text);
    return std::string(text) + "/64";
}

} // namespace orv
