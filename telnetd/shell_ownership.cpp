#include "telnetd/shell_ownership.hpp"

#include "accounts/accounts.hpp"
#include "core/prompt.hpp"
#include "core/server.hpp"
#include "platform/text.hpp"
#include "telnetd/shell_paths.hpp"
#include "vfs/tree.hpp"

#include <functional>
#include <mutex>
#include <shared_mutex>

namespace orv::telnet {
namespace {

// The texts that differ between the three commands. chmod answers an unresolved directory
// with chown's text on purpose.
struct OwnershipTexts {
    const char* no_such_dir;
    const char* no_match;
    const char* refused;
};

constexpr OwnershipTexts kChmodTexts{"chown: %s: No such file or directory\r\n",
                                     "chmod: %s: No files matched your criteria\r\n",
                                     "chmod: WARNING: can't change %s\r\n"};
constexpr OwnershipTexts kChownTexts{"chown: %s: No such file or directory\r\n",
                                     "chown: %s: No files matched your criteria\r\n",
                                     "chown: %s: Not owner\r\n"};
constexpr OwnershipTexts kChgrpTexts{"chgrp: %s: No such file or directory\r\n",
                                     "chgrp: %s: No files matched your criteria\r\n",
                                     "chgrp: %s: Not owner\r\n"};

// Checks the operand under the tree lock and returns how to change a node, or an empty
// function after adding the refusal (if any) to `out`.
using OperandCheck =
    std::function<std::function<void(VfsNode&)>(Accounts&, const std::string&, std::string&)>;

// The shared body: flags, operand, path; directory, its read test, the operand, the nodes.
std::string change_nodes(Server& server, const SlotPtr& slot, std::string arg,
                         const OwnershipTexts& texts, const OperandCheck& check_operand) {
    std::string out;
    std::string operand = next_word(arg);
    if (is_option_word(operand)) {
        out += kFlagsIgnored;
        operand = next_word(arg);
    }
    std::string path = next_word(arg);
    if (operand.empty() || path.empty())
        return out + "*** display help ***\r\n";

    std::shared_ptr<User> user = slot->checked_user();
    NodePtr cwd = slot->cwd();
    std::unique_lock lock(server.tree_mutex);
    if (!server.vfs || !server.accounts)
        return out;
    SplitPath split = split_at_last_backslash(path);
    NodePtr dir = resolve_split_dir(*server.vfs, split, cwd);
    if (!dir)
        return out + strf(texts.no_such_dir, path.c_str());
    if (!can_read(user.get(), *dir))
        return out + strf("%s: permission denied\r\n", path.c_str());
    std::function<void(VfsNode&)> change = check_operand(*server.accounts, operand, out);
    if (!change)
        return out;

    auto apply = [&](VfsNode& node) {
        if (may_change_owner_fields(user.get(), node))
            change(node);
        else
            out += strf(texts.refused, node.name.c_str());
    };
    if (split.pattern.empty()) {
        apply(*dir);
        return out;
    }
    bool any = false;
    for (NodePtr n = match_first(*dir, split.pattern); n; n = match_next(*n, split.pattern)) {
        apply(*n);
        any = true;
    }
    if (!any)
        out += strf(texts.no_match, split.pattern.c_str());
    return out;
}

void finish(Server& server, const SlotPtr& slot, const std::string& out, const char* name) {
    if (!out.empty())
        slot->send_text(out);
    server.log.logf("(%i) %s thread complete", slot->socket.load(), name);
    send_shell_prompt(server, slot);
}

} // namespace

ModeParse parse_chmod_mode(std::string_view mode) {
    ModeParse result;
    if (mode.find_first_not_of("01234567") != std::string_view::npos) {
        result.kind = mode.find_first_not_of("ugoa+-=rwx") == std::string_view::npos
                          ? ModeParse::Symbolic
                          : ModeParse::Ignored;
        return result;
    }
    if (mode.size() > 3) {
        result.kind = ModeParse::Invalid;
        return result;
    }
    std::string digits = std::string(3 - mode.size(), '0') + std::string(mode);
    for (size_t i = 0; i < 3; ++i) {
        int d = digits[i] - '0';
        result.flags[i * 3] = (d & 4) ? 1 : 0;
        result.flags[i * 3 + 1] = (d & 2) ? 1 : 0;
        result.flags[i * 3 + 2] = (d & 1) ? 1 : 0;
    }
    result.kind = ModeParse::Ok;
    return result;
}

void chmod_thread(Server& server, const SlotPtr& slot, std::string arg) {
    std::string out = change_nodes(
        server, slot, std::move(arg), kChmodTexts,
        [](Accounts&, const std::string& mode, std::string& out) -> std::function<void(VfsNode&)> {
            ModeParse parsed = parse_chmod_mode(mode);
            if (parsed.kind == ModeParse::Symbolic)
                out += "symbolic chmod not coded yet!\r\n";
            else if (parsed.kind == ModeParse::Invalid)
                out += "chmod: ERROR: invalid mode\r\n";
            if (parsed.kind != ModeParse::Ok)
                return nullptr;
            return [flags = parsed.flags](VfsNode& node) { node.flags = flags; };
        });
    finish(server, slot, out, "chmod");
}

void chown_thread(Server& server, const SlotPtr& slot, std::string arg) {
    std::string out = change_nodes(server, slot, std::move(arg), kChownTexts,
                                   [](Accounts& accounts, const std::string& name,
                                      std::string& out) -> std::function<void(VfsNode&)> {
                                       std::shared_ptr<User> owner = accounts.find_user(name);
                                       if (!owner) {
                                           out += strf("chown: unknown user: %s\r\n", name.c_str());
                                           return nullptr;
                                       }
                                       return [owner](VfsNode& node) { node.owner = owner; };
                                   });
    finish(server, slot, out, "chown");
}

void chgrp_thread(Server& server, const SlotPtr& slot, std::string arg) {
    std::string out = change_nodes(server, slot, std::move(arg), kChgrpTexts,
                                   [](Accounts& accounts, const std::string& name,
                                      std::string& out) -> std::function<void(VfsNode&)> {
                                       std::shared_ptr<Group> group = accounts.find_group(name);
                                       if (!group) {
                                           out +=
                                               strf("chgrp: unknown group: %s\r\n", name.c_str());
                                           return nullptr;
                                       }
                                       return [group](VfsNode& node) { node.group = group; };
                                   });
    finish(server, slot, out, "chgrp");
}

} // namespace orv::telnet
