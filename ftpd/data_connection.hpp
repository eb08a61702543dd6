#pragma once
// Active-mode data connections: PORT and TYPE, and the opening of the connection with its 150
// reply, which RETR, STOR, LIST and NLST share.
#include "core/conn_slot.hpp"

#include <string>
#include <string_view>

namespace orv {

class Server;

// The stored PORT argument read back: the text before the fourth comma with its first three
// commas as points, and the port from the two numbers after it.
struct PortTarget {
    std::string address;
    long port = 0;
};
PortTarget decode_port_arg(std::string_view arg);

// PORT: an argument of 24 characters or more is refused; anything shorter is stored as it is.
std::string port_reply(std::string_view arg, std::string& stored);
// TYPE: "I" and "a" select binary, "A" ASCII; anything else leaves `type` and is refused.
std::string type_reply(std::string_view arg, char& type);
// The 150 line; `size` below 0 means none is announced.
std::string opening_reply(char type, long long size);

// ftp_data_open: binds (port 20 when the process may), sends the 150 line on the control
// connection, then connects to the PORT address, which must be the control connection's peer.
// Returns the connected, blocking data socket or -1 after logging why.
int open_data_connection(Server& server, ConnSlot& slot, const std::string& port_arg, char type,
                         long long size);

// How long a data connection may stay without progress before the command gives up.
constexpr int kDataIdleLimitMs = 120000;

} // namespace orv
