#pragma once
// `orvane-server [-C DIR] admin ...`: the administration dialogs' operations from a command
// line. The same code runs inside a running server (reached through its admin socket, on the
// event thread as the desktop's steps are) and, with no server running, on the tables of the
// start directory loaded for the purpose.
#include <optional>
#include <string>
#include <vector>

namespace orv {

class Server;
class ServerApp;

struct AdminRequest {
    std::vector<std::string> args;       // after "admin": "user", "add", "bob", "--super", ...
    std::optional<std::string> password; // read by the command line, never an argument
};

struct AdminOutcome {
    int status = 0; // 0 done, 1 refused, 2 not understood
    std::string out;
    std::string err;
};

// True when the command needs a new password (user add, user passwd).
bool admin_needs_password(const std::vector<std::string>& args);
std::string admin_usage();

// Runs one command. `app` is the running server (its listeners follow a settings change),
// or null for the tables of a stopped one. With a running server call it on the event thread.
// The lines the operation logs are printed on `out` as well.
AdminOutcome run_admin_command(Server& server, ServerApp* app, const AdminRequest& request);

} // namespace orv
