#pragma once
// Keeps the four tables on disk in step with the server, so that a crash or a power cut loses
// at most about the last second of changes: a thread looks at the tree lock's count of
// changes a few times a second and, at most once a second, writes (atomically) each table
// whose text differs from the version last written or loaded. The orderly shutdown still
// writes all four, in the order users, groups, mounts, fpl.txt.
#include <array>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

namespace orv {

class Server;

class TableSaver {
  public:
    explicit TableSaver(Server& server);
    ~TableSaver();
    TableSaver(const TableSaver&) = delete;
    TableSaver& operator=(const TableSaver&) = delete;

    // Takes the tables as they are now (just loaded) as the version on disk.
    void remember_current();
    // Writes each table whose text has changed since it was last written or loaded. False
    // when a write failed (logged once until a write of that table succeeds again).
    bool save_changed();
    // Writes every table there is (the orderly shutdown); a table that cannot be written is
    // logged.
    void save_all();

    // The background writer. stop() waits for a write in progress and is idempotent.
    void start();
    void stop();

    static constexpr auto kPollInterval = std::chrono::milliseconds(200);
    static constexpr auto kMinInterval = std::chrono::milliseconds(1000);

  private:
    static constexpr size_t kTables = 4;
    struct Table {
        const char* name;
        unsigned mode;
        std::optional<size_t> written; // digest of the text on disk, when known
        bool failing = false;
    };
    static constexpr size_t kFpl = 3; // written as a stream, never rendered whole
    // The tables taken together under the tree lock: the texts of the three account and mount
    // tables and a digest of fpl.txt; none for a table that does not exist (no accounts or no
    // tree yet).
    struct Rendered {
        std::array<std::optional<std::string>, kFpl> texts;
        std::optional<size_t> fpl_digest;
        std::optional<size_t> digest(size_t table) const;
    };
    Rendered render() const;
    // Writes one table (`text` is unused for fpl.txt, which is streamed from the tree).
    bool write(size_t table, const Rendered& rendered, bool log_every_failure);
    void run();

    Server& server_;
    std::array<Table, kTables> tables_;
    std::mutex write_mutex_; // one writer at a time: the temporary file's name is fixed
    std::mutex mutex_;
    std::condition_variable wake_;
    bool stopping_ = false;
    std::thread thread_;
};

} // namespace orv
