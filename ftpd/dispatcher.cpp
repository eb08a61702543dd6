#include "ftpd/dispatcher.hpp"

#include "core/server.hpp"
#include "ftpd/control_connection.hpp"
#include "ftpd/data_connection.hpp"
#include "ftpd/fs_commands.hpp"
#include "ftpd/listing.hpp"
#include "ftpd/login.hpp"
#include "ftpd/modern_commands.hpp"
#include "ftpd/replies.hpp"
#include "ftpd/transfers.hpp"
#include "platform/text.hpp"

namespace orv {

ParsedCommand parse_ftp_command(std::string_view line) {
    ParsedCommand out;
    size_t blank = line.find(' ');
    std::string_view verb = line.substr(0, blank);
    if (blank != std::string_view::npos)
        out.argument = std::string(trim_blanks(line.substr(blank + 1)));
    if (verb.size() >= 16)
        return out;
    std::string upper = to_upper_ascii(verb);
    for (size_t i = 0; i < kFtpVerbs.size(); ++i) {
        if (upper == kFtpVerbs[i]) {
            out.index = static_cast<int>(i);
            break;
        }
    }
    return out;
}

namespace {

using ThreadBody = void (*)(const FtpContextPtr&, const SlotPtr&, const FtpJob&);

struct ThreadCommand {
    int index;
    ThreadBody body;
    const char* spawn_failure; // logged when the thread cannot be made; the client gets nothing
};

constexpr ThreadCommand kThreadCommands[] = {
    {kVerbStor, stor_thread, "**** Failed to create ftp in STOR Thread ****"},
    {kVerbRetr, retr_thread, "**** Failed to create ftp in RETR Thread ****"},
    {kVerbDele, dele_thread, "**** Failed to create ftp in DELE Thread ****"},
    {kVerbCwd, cwd_thread, "**** Failed to create ftp in CWD Thread ****"},
    {kVerbXcwd, cwd_thread, "**** Failed to create ftp in CWD Thread ****"},
    {kVerbList, list_thread, "**** Failed to create ftp in LIST Thread ****"},
    {kVerbNlst, nlst_thread, "**** Failed to create ftp in NLST Thread ****"},
    {kVerbMkd, mkd_thread, "**** Failed to create ftp in MKD Thread ****"},
    {kVerbXmkd, mkd_thread, "**** Failed to create ftp in MKD Thread ****"},
    {kVerbRmd, rmd_thread, "**** Failed to create ftp in RMD Thread ****"},
    {kVerbXrmd, rmd_thread, "**** Failed to create ftp in RMD Thread ****"},
    {kVerbCdup, cdup_thread, "**** Failed to create ftp in CWUP Thread ****"},
};

const ThreadCommand* thread_command(int index) {
    for (const ThreadCommand& c : kThreadCommands)
        if (c.index == index)
            return &c;
    return nullptr;
}

void start_thread_command(const FtpContextPtr& ctx, const SlotPtr& slot, const ThreadCommand& c,
                          std::string argument) {
    slot->arg_buf = argument;
    FtpJob job{std::move(argument), slot->port_arg, slot->transfer_type.load(),
               slot->socket.load()};
    ThreadBody body = c.body;
    bool started = ctx->server.workers.spawn(
        [ctx, slot, body, job = std::move(job)] { body(ctx, slot, job); });
    // Without its thread the session stays busy and ignores every later line.
    if (!started)
        ctx->server.log_message(c.spawn_failure);
}

void quit(FtpContext& ctx, const SlotPtr& slot) {
    int socket = slot->socket;
    slot->state = 3;
    if (close_session(ctx, slot))
        ctx.server.log.logf("(%i) FTP Close port", socket);
    slot->close_control();
}

} // namespace

void ftp_dispatch(const FtpContextPtr& ctx, const SlotPtr& slot, std::string line) {
    uint8_t state = slot->state;
    if (state != 1 && state != 2 && state != 3)
        return; // a command is running: the line is dropped without a reply
    slot->state = 10;
    if (slot->ftp_extras && modern_dispatch(ctx, slot, line))
        return;
    ParsedCommand cmd = parse_ftp_command(line);
    switch (cmd.index) {
    case -1:
        finish_command(*slot, ftp_text::kNotUnderstood);
        return;
    case kVerbUser:
        ftp_user(*ctx, slot, cmd.argument);
        return;
    case kVerbPass:
        ftp_pass(ctx, slot, cmd.argument);
        return;
    case kVerbQuit:
        quit(*ctx, slot);
        return;
    case kVerbPort:
        finish_command(*slot, port_reply(cmd.argument, slot->port_arg));
        return;
    case kVerbType: {
        char type = slot->transfer_type;
        std::string reply = type_reply(cmd.argument, type);
        slot->transfer_type = type;
        finish_command(*slot, reply);
        return;
    }
    case kVerbPwd:
    case kVerbXpwd:
        finish_command(*slot, pwd_reply(ctx->server, *slot));
        return;
    default:
        break;
    }
    if (const ThreadCommand* c = thread_command(cmd.index))
        start_thread_command(ctx, slot, *c, std::move(cmd.argument));
    else
        finish_command(*slot, ftp_text::kNotImplemented);
}

} // namespace orv
