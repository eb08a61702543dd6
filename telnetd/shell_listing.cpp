#include "telnetd/shell_listing.hpp"

#include "accounts/group.hpp"
#include "accounts/user.hpp"
#include "core/prompt.hpp"
#include "core/server.hpp"
#include "platform/text.hpp"
#include "telnetd/ghost.hpp"
#include "telnetd/shell_paths.hpp"
#include "telnetd/telnet_input.hpp"
#include "vfs/tree.hpp"

#include <mutex>
#include <shared_mutex>

namespace orv::telnet {
namespace {

// The prompt a listing or pwd ends with: the outgoing client's when it asked (state 11).
void end_with_prompt(Server& server, const SlotPtr& slot) {
    if (slot->state == kStateOftpCommand)
        send_oftp_prompt(server, slot);
    else
        send_shell_prompt(server, slot);
}

std::string user_name(Server& server, const SlotPtr& slot) {
    std::shared_ptr<User> user = slot->user();
    if (!user)
        return {};
    std::shared_lock lock(server.tree_mutex);
    return user->name;
}

// The answer of cd (empty when the directory changed). Tree lock held.
std::string change_dir(const VfsTree& tree, const User* user, const SlotPtr& slot,
                       const std::string& word) {
    NodePtr cwd = slot->cwd();
    if (word.empty()) {
        NodePtr home = user ? find_node(tree, user->home_dir, tree.root) : nullptr;
        slot->set_cwd(home && home->is_dir() ? home : tree.root);
        return {};
    }
    if (word == ".")
        return {};
    if (word == "..") {
        NodePtr parent = cwd ? cwd->parent_node() : nullptr;
        if (!parent)
            return strf("%s: does not exist\r\n", word.c_str());
        if (!can_read(user, *parent))
            return strf("%s: permission denied\r\n", word.c_str());
        slot->set_cwd(parent);
        return {};
    }
    if (word == "/" || word == "\\") {
        slot->set_cwd(tree.root);
        return {};
    }
    NodePtr target;
    if (word.find_first_of("/\\") == std::string::npos)
        target = cwd ? find_child(*cwd, word) : nullptr;
    else
        target = find_node(tree, word, cwd);
    if (!target)
        return strf("%s: does not exist\r\n", word.c_str());
    if (!target->is_dir())
        return strf("%s: not a directory\r\n", word.c_str());
    if (!can_read(user, *target))
        return strf("%s: permission denied\r\n", word.c_str());
    slot->set_cwd(target);
    return {};
}

// The `who` line of one slot, as the event thread sees it now.
std::string who_line_for(Server& server, const ConnSlot& slot) {
    std::string name = "Login";
    if (std::shared_ptr<User> user = slot.user()) {
        std::shared_lock lock(server.tree_mutex);
        name = user->name;
    }
    return who_line(name, slot.socket, slot.peer_known, slot.peer, slot.peer_text);
}

// The event that sends the next `who` line (one line per event, so that the table is read
// only between other events).
void post_who_next(Server& server, const SlotPtr& slot) {
    server.post([&server, slot] {
        if (slot->list_state != 9)
            return;
        SlotPtr shown = slot->list_cursor.lock();
        if (shown) {
            slot->send_text(who_line_for(server, *shown));
            shown = server.conns.next_after(shown.get());
        }
        if (shown) {
            slot->list_cursor = shown;
            post_who_next(server, slot);
            return;
        }
        slot->list_state = 0;
        slot->list_cursor.reset();
        send_shell_prompt(server, slot);
    });
}

} // namespace

std::string listing_line(const VfsNode& node, std::string_view shown_name, bool zero_size) {
    std::string line(1, node.kind);
    static constexpr char kLetters[] = "rwxrwxrwx";
    for (size_t i = 0; i < node.flags.size(); ++i)
        line.push_back(node.flags[i] == 1 ? kLetters[i] : '-');
    line += "     ";
    line += strf("%-8.8s ", node.owner ? node.owner->name.c_str() : "");
    line += node.group ? strf("%-8.8s ", node.group->name.c_str()) : std::string("<none>   ");
    line += strf("%10u ", zero_size ? 0u : static_cast<unsigned>(node.size));
    line += shown_name;
    line += "\r\n";
    return line;
}

std::string list_directory(const VfsTree& tree, const User* user, const NodePtr& cwd,
                           std::string arg) {
    std::string out;
    std::string path = next_word(arg);
    if (is_option_word(path)) {
        out += kFlagsIgnored;
        path = next_word(arg);
    }
    SplitPath split = split_at_last_backslash(path);
    NodePtr dir = resolve_split_dir(tree, split, cwd);
    if (!dir)
        return out + strf("%s: No such file or directory\r\n", path.c_str());
    if (!can_read(user, *dir))
        return out + strf("%s: permission denied\r\n", path.c_str());
    if (split.pattern.empty()) {
        NodePtr parent = dir->parent_node();
        out += listing_line(*dir, ".", true);
        out += listing_line(parent ? *parent : *dir, "..", true);
        for (const NodePtr& child : dir->children)
            out += listing_line(*child, child->name, false);
        return out;
    }
    bool any = false;
    for (NodePtr n = match_first(*dir, split.pattern); n; n = match_next(*n, split.pattern)) {
        out += listing_line(*n, n->name, false);
        any = true;
    }
    if (!any)
        out += strf("%s: No such file or directory\r\n", path.c_str());
    return out;
}

std::string who_line(std::string_view name, int socket, bool peer_known,
                     const std::array<uint8_t, 4>& peer, std::string_view peer_text) {
    std::string padded = strf("%-16.*s", static_cast<int>(name.size()), name.data());
    std::string line = strf("%.16s port %.3i   ", padded.c_str(), socket);
    if (peer_known)
        line += strf("%d.%d.%d.%d", peer[0], peer[1], peer[2], peer[3]);
    else if (!peer_text.empty()) // an IPv6 peer
        line += peer_text;
    else
        line += "???.???.???.???";
    return line + "\r\n";
}

const std::string& help_text() {
    static const std::string text = "Commands that work are:\r\n\r\n"
                                    "?        cp       ls       pwd      whoami\r\n"
                                    "cd       dir      man      rm\r\n"
                                    "chgrp    exit     mkdir    rmdir\r\n"
                                    "chmod    ftp      more     telnet\r\n"
                                    "chown    help     mv       who\r\n";
    return text;
}

void dir_thread(Server& server, const SlotPtr& slot, std::string arg) {
    std::string text;
    {
        std::shared_ptr<User> user = slot->checked_user();
        NodePtr cwd = slot->cwd();
        std::shared_lock lock(server.tree_mutex);
        if (server.vfs)
            text = list_directory(*server.vfs, user.get(), cwd, std::move(arg));
    }
    slot->send_text(text);
    server.log.logf("(%i) Dir thread complete", slot->socket.load());
    end_with_prompt(server, slot);
}

void help_thread(Server& server, const SlotPtr& slot) {
    slot->send_text(help_text());
    server.log.logf("(%i) HELP thread complete", slot->socket.load());
    send_shell_prompt(server, slot);
}

void cd_command(Server& server, const SlotPtr& slot, std::string arg) {
    std::string word = next_word(arg);
    std::string answer;
    {
        std::shared_ptr<User> user = slot->checked_user();
        std::shared_lock lock(server.tree_mutex);
        if (server.vfs)
            answer = change_dir(*server.vfs, user.get(), slot, word);
    }
    if (!answer.empty())
        slot->send_text(answer);
    send_shell_prompt(server, slot);
}

void pwd_command(Server& server, const SlotPtr& slot) {
    std::string path = "\\";
    if (NodePtr cwd = slot->cwd()) {
        std::shared_lock lock(server.tree_mutex);
        path = node_virtual_path(*cwd, '\\');
    }
    slot->send_text(path + "\r\n");
    end_with_prompt(server, slot);
}

void whoami_command(Server& server, const SlotPtr& slot) {
    slot->send_text(user_name(server, slot) + "\r\n");
    send_shell_prompt(server, slot);
}

void who_command(Server& server, const SlotPtr& slot) {
    SlotPtr first = server.conns.head();
    if (first) {
        slot->send_text(who_line_for(server, *first));
        SlotPtr next = server.conns.next_after(first.get());
        if (next) {
            slot->list_cursor = next;
            slot->list_state = 9;
            post_who_next(server, slot);
            return;
        }
    }
    send_shell_prompt(server, slot);
}

void exit_command(Server& server, const SlotPtr& slot) {
    slot->state = kStateShell;
    int socket = slot->socket;
    if (close_telnet_conn(server, slot))
        server.log.logf("(%i) Telnet Close port", socket);
    slot->close_control();
}

} // namespace orv::telnet
