#include "app/table_saver.hpp"

#include "accounts/accounts.hpp"
#include "core/server.hpp"
#include "platform/files.hpp"
#include "platform/text.hpp"
#include "vfs/build.hpp"
#include "vfs/tree.hpp"

#include <cerrno>
#include <cstring>
#include <functional>
#include <shared_mutex>

namespace orv {

TableSaver::TableSaver(Server& server)
    : server_(server), tables_{{{"users", 0600, {}},
                                {"groups", 0644, {}},
                                {"mounts", 0644, {}},
                                {"fpl.txt", 0644, {}}}} {}

TableSaver::~TableSaver() {
    stop();
}

TableSaver::Rendered TableSaver::render() const {
    Rendered out;
    std::shared_lock lock(server_.tree_mutex);
    if (server_.accounts) {
        out.texts[0] = server_.accounts->users_text();
        out.texts[1] = server_.accounts->groups_text();
    }
    if (server_.vfs) {
        out.texts[2] = mounts_text(*server_.vfs);
        if (server_.vfs->root)
            out.fpl_digest = fpl_digest(*server_.vfs);
    }
    return out;
}

std::optional<size_t> TableSaver::Rendered::digest(size_t table) const {
    if (table == kFpl)
        return fpl_digest;
    if (!texts[table])
        return std::nullopt;
    return std::hash<std::string>{}(*texts[table]);
}

void TableSaver::remember_current() {
    Rendered rendered = render();
    std::lock_guard lock(write_mutex_);
    for (size_t i = 0; i < kTables; ++i)
        if (auto digest = rendered.digest(i))
            tables_[i].written = digest;
}

bool TableSaver::write(size_t index, const Rendered& rendered, bool log_every_failure) {
    Table& table = tables_[index];
    bool ok = index == kFpl ? write_fpl(server_)
                            : write_file_atomic(server_.table_path(table.name),
                                                *rendered.texts[index], table.mode);
    if (ok) {
        table.written = rendered.digest(index);
        table.failing = false;
        return true;
    }
    int error = errno;
    if (log_every_failure || !table.failing)
        server_.log.logf("**** Unable to write %s (%s) ****", table.name, std::strerror(error));
    table.failing = true;
    return false;
}

bool TableSaver::save_changed() {
    Rendered rendered = render();
    std::lock_guard lock(write_mutex_);
    bool ok = true;
    for (size_t i = 0; i < kTables; ++i) {
        std::optional<size_t> digest = rendered.digest(i);
        if (!digest || tables_[i].written == digest)
            continue;
        ok = write(i, rendered, false) && ok;
    }
    return ok;
}

void TableSaver::save_all() {
    Rendered rendered = render();
    std::lock_guard lock(write_mutex_);
    for (size_t i = 0; i < kTables; ++i)
        if (rendered.digest(i))
            write(i, rendered, true);
}

void TableSaver::start() {
    std::lock_guard lock(mutex_);
    if (thread_.joinable() || stopping_)
        return;
    thread_ = std::thread([this] { run(); });
}

void TableSaver::stop() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    wake_.notify_all();
    if (thread_.joinable())
        thread_.join();
}

void TableSaver::run() {
    using Clock = std::chrono::steady_clock;
    uint64_t seen = server_.tree_mutex.generation();
    Clock::time_point last_pass = Clock::now() - kMinInterval;
    std::unique_lock lock(mutex_);
    while (!stopping_) {
        wake_.wait_for(lock, kPollInterval);
        if (stopping_)
            break;
        uint64_t now_generation = server_.tree_mutex.generation();
        if (now_generation == seen || Clock::now() - last_pass < kMinInterval)
            continue;
        last_pass = Clock::now();
        lock.unlock();
        // A failed write is tried again at the next pass even without a further change.
        if (save_changed())
            seen = now_generation;
        lock.lock();
    }
}

} // namespace orv
