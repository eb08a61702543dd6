#pragma once
// The password step of a login, shared by the login services: the account's right for the
// service, the password (a stored hash is checked on a worker thread, never on the event
// thread), and the brute-force defence's part (a banned address fails at once, a failure is
// counted and its reply may wait). With a classic stored password and the defence off, the
// decision is made at once, within the call.
#include "core/conn_slot.hpp"

#include <cstdint>
#include <functional>
#include <string>

namespace orv {

class Server;

struct User;

// "(%i) Login failure for user (%s)", or "... for unknown user" when the name matched none.
void log_login_failure(Server& server, const ConnSlot& slot);
// Counts the session's login among the user's active logins; returns the new count. The count
// is given back by give_back_login.
int count_login(ConnSlot& slot, User& user);
// Lowers the user's active-login count if this session's login raised it, and clears the
// session's mark. Safe to call on every way out.
void give_back_login(ConnSlot& slot);

// Event thread. `decided` runs on the event thread with the outcome, unless the session has
// gone meanwhile; while a slow check or a failure's pause runs, the session's state is busy
// (10). The account is the session's user; `right` is the connection right the service needs.
void check_login(Server& server, const SlotPtr& slot, uint16_t right, std::string typed,
                 std::function<void(bool accepted)> decided);

} // namespace orv
