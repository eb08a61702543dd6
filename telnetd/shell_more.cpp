// The shell's pager: a text file in pages of 24 lines, waiting for a key between pages.
#include "accounts/user.hpp"
#include "core/prompt.hpp"
#include "core/server.hpp"
#include "telnetd/shell_files.hpp"
#include "telnetd/telnet_input.hpp"
#include "vfs/host_files.hpp"
#include "vfs/tree.hpp"

#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <thread>
#include <unistd.h>

namespace orv::telnet {
namespace {

constexpr int kPageLines = 24;
constexpr size_t kPieceChars = 80;
constexpr auto kKeyPoll = std::chrono::milliseconds(250);
constexpr char kMorePrompt[] = "-MORE-";
constexpr char kErasePrompt[] = "\b\b\b\b\b\b      \b\b\b\b\b\b";

struct FileCloser {
    void operator()(std::FILE* f) const { std::fclose(f); }
};

// The host path of a file the user may page, or an empty one.
HostPath pageable_path(Server& server, const SlotPtr& slot, const std::string& word) {
    if (word.empty() || has_wildcard(word))
        return {};
    std::shared_ptr<User> user = slot->checked_user();
    NodePtr cwd = slot->cwd();
    std::shared_lock lock(server.tree_mutex);
    if (!server.vfs)
        return {};
    NodePtr node = find_node(*server.vfs, word, cwd);
    if (!node || node->is_dir() || !can_read_path(user.get(), *node))
        return {};
    return node_host_path(*server.vfs, *node);
}

// Opens the file below its base directory, and only a regular file: a link put in its place
// on the host must not lead elsewhere, and a FIFO or device must not hang the pager.
std::FILE* open_text_file(const HostPath& path) {
    int fd = open_host_file(path);
    if (fd < 0)
        return nullptr;
    std::FILE* file = ::fdopen(fd, "r");
    if (!file)
        ::close(fd);
    return file;
}

// Waits for the key that the event thread hands over through the state (28 to 29) and the
// slot's arg_buf. A ghost, an interrupt or a stopping server answer "Q".
char wait_for_key(Server& server, const SlotPtr& slot) {
    if (slot->ghost)
        return 'Q';
    uint8_t expected = kStateCommand;
    if (!slot->state.compare_exchange_strong(expected, kStateMorePage))
        return 'Q'; // Ctrl-C came while the page was sent
    slot->send_text(kMorePrompt);
    post_pending_line(server, slot); // a key typed ahead is taken at once
    for (;;) {
        std::this_thread::sleep_for(kKeyPoll);
        if (slot->state != kStateMorePage)
            break;
        if (slot->ghost || slot->stop || server.stopping) {
            uint8_t waiting = kStateMorePage;
            if (slot->state.compare_exchange_strong(waiting, kStateMoreKey))
                return 'Q';
            break;
        }
    }
    uint8_t answered = kStateMoreKey;
    if (slot->state != kStateMoreKey)
        return 'Q';
    char key = slot->arg_buf.empty() ? '\0' : slot->arg_buf.front();
    // Running again: a Ctrl-C while the next page is sent interrupts the command.
    slot->state.compare_exchange_strong(answered, kStateCommand);
    return key;
}

// Pages the file; returns when it ends or the user stops.
void page_file(Server& server, const SlotPtr& slot, std::FILE* file) {
    char piece[kPieceChars + 1];
    int left_on_page = kPageLines;
    while (std::fgets(piece, sizeof piece, file)) {
        if (command_interrupted(server, *slot))
            return;
        std::string text(piece, std::strlen(piece));
        if (!text.empty() && text.back() == '\n') {
            text.pop_back();
            if (!text.empty() && text.back() == '\r')
                text.pop_back(); // text mode: a CR LF line end reads as LF
        }
        if (text.size() < kPieceChars)
            text += "\r\n";
        slot->send_text(text);
        if (--left_on_page > 0)
            continue;
        for (;;) {
            char key = wait_for_key(server, slot);
            if (key == 'Q' || key == 'q')
                return;
            if (key == '\n') {
                left_on_page = 1;
                break;
            }
            if (key == ' ') {
                slot->send_text(kErasePrompt);
                left_on_page = kPageLines;
                break;
            }
            // Any other key: wait again.
        }
    }
}

} // namespace

void more_thread(Server& server, const SlotPtr& slot, std::string arg) {
    HostPath path = pageable_path(server, slot, next_word(arg));
    std::unique_ptr<std::FILE, FileCloser> file(open_text_file(path));
    if (!file)
        slot->send_text("more failed: Permissions Denied\r\n");
    else
        page_file(server, slot, file.get());
    file.reset();
    server.log.logf("(%i) more thread complete", slot->socket.load());
    send_shell_prompt(server, slot);
}

} // namespace orv::telnet
