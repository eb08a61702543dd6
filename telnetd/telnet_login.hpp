#pragma once
// The login dialogue of a Telnet session: "login: ", "Password: ", three tries, the account's
// Telnet IN right and its limit of sessions. Event thread.
#include "core/conn_slot.hpp"

#include <string>

namespace orv {
class Server;
}

namespace orv::telnet {

// State 1: the name names the account to check (or none); asks for the password.
void login_name(Server& server, const SlotPtr& slot, const std::string& name);
// State 2: checks the password and the account, and opens the shell.
void login_password(Server& server, const SlotPtr& slot, const std::string& typed);
// telnet_login_failure: counts the try; the third closes the connection.
void login_failure(Server& server, const SlotPtr& slot);

} // namespace orv::telnet
