#include "platform/name_lookup.hpp"

#include "platform/net.hpp"

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <system_error>
#include <thread>

namespace orv {
namespace {

bool system_resolve(const std::string& host, uint32_t& addr_be) {
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (::getaddrinfo(host.c_str(), nullptr, &hints, &found) != 0 || !found)
        return false;
    bool ok = false;
    for (addrinfo* a = found; a && !ok; a = a->ai_next) {
        if (a->ai_family == AF_INET && a->ai_addr) {
            addr_be = reinterpret_cast<const sockaddr_in*>(a->ai_addr)->sin_addr.s_addr;
            ok = true;
        }
    }
    ::freeaddrinfo(found);
    return ok;
}

std::mutex resolver_mutex;
NameResolver& resolver_override() {
    static NameResolver resolver;
    return resolver;
}

NameResolver current_resolver() {
    std::lock_guard lock(resolver_mutex);
    return resolver_override() ? resolver_override() : NameResolver(system_resolve);
}

// What the look-up thread and its caller share; whoever leaves last frees it.
struct Lookup {
    std::mutex mutex;
    std::condition_variable done_cv;
    bool done = false;
    bool found = false;
    uint32_t addr_be = 0;
};

} // namespace

void set_name_resolver(NameResolver resolver) {
    std::lock_guard lock(resolver_mutex);
    resolver_override() = std::move(resolver);
}

bool resolve_ipv4(const std::string& host, uint32_t& addr_be, int timeout_ms,
                  const std::atomic<int>* stop) {
    if (host.empty())
        return false;
    if (parse_ipv4(host, addr_be))
        return true;
    auto lookup = std::make_shared<Lookup>();
    try {
        std::thread([lookup, host, resolve = current_resolver()] {
            uint32_t addr = 0;
            bool found = resolve(host, addr);
            std::lock_guard lock(lookup->mutex);
            lookup->done = true;
            lookup->found = found;
            lookup->addr_be = addr;
            lookup->done_cv.notify_all();
        }).detach();
    } catch (const std::system_error&) {
        return false;
    }
    // Waits in short slices so that a raised stop flag is seen promptly.
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    std::unique_lock lock(lookup->mutex);
    while (!lookup->done) {
        if (stop && stop->load() != 0)
            return false;
        auto now = std::chrono::steady_clock::now();
        if (now >= deadline)
            return false;
        lookup->done_cv.wait_until(lock, std::min(deadline, now + std::chrono::milliseconds(100)));
    }
    if (lookup->found)
        addr_be = lookup->addr_be;
    return lookup->found;
}

} // namespace orv
