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

std::array<std::optional<std::string>, TableSaver::kTables> TableSaver::render() const {
    std::array<std::optional<std::string>, kTables> texts;
    std::shared_lock lock(server_.tree_mutex);
    if (server_.accounts) {
        texts[0] = server_.accounts->users_text();
        texts[1] = server_.accounts->groups_text();
    }
    if (server_.vfs) {
        texts[2] = mounts_text(*server_.vfs);
        if (server_.vfs->root)
            texts[3] = fpl_text(*server_.vfs);
    }
    return texts;
}

void TableSaver::remember_current() {
    auto texts = render();
    std::lock_guard lock(write_mutex_);
    for (size_t i = 0; i < kTables; ++i)
        if (texts[i])
            tables_[i].written = std::hash<std::string>{}(*texts[i]);
}

bool TableSaver::write(Table& table, const std::string& text, bool log_every_failure) {
    if (write_file_atomic(server_.table_path(table.name), text, table.mode)) {
        table.written = std::hash<std::string>{}(text);
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
    auto texts = render();
    std::lock_guard lock(write_mutex_);
    bool ok = true;
    for (size_t i = 0; i < kTables; ++i) {
        if (!texts[i])
            continue;
        if (tables_[i].written == std::hash<std::string>{}(*texts[i]))
            continue;
        ok = write(tables_[i], *texts[i], false) && ok;
    }
    return ok;
}

void TableSaver::save_all() {
    auto texts = render();
    std::lock_guard lock(write_mutex_);
    for (size_t i = 0; i < kTables; ++i)
        if (texts[i])
            write(tables_[i], *texts[i], true);
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
