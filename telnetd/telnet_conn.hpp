#pragma once
// One Telnet connection on the event thread: admitting it, the read, close and error events,
// and the pending-line event that takes typed-ahead input after a command has ended.
#include "core/conn_slot.hpp"

#include <asio/ip/tcp.hpp>
#include <cstddef>

namespace orv {
class Server;
}

namespace orv::telnet {

// accept_telnet_conn: the refusal banner when the server is full; otherwise a new slot,
// IAC WILL ECHO, the welcome banner with "login: " and the title.
void accept_telnet_conn(Server& server, asio::ip::tcp::socket socket, int socket_number);

// The bytes of one read, by the slot's state; then at most one complete line is taken.
void handle_read(Server& server, const SlotPtr& slot, const char* data, size_t size);
// process_pending_line: the same line taking as a read, without reading.
void process_pending_line(Server& server, const SlotPtr& slot);
// Takes one complete typed-ahead command line, for a ghost too (its completion runs them).
void take_typed_line(Server& server, const SlotPtr& slot);

// The peer closed the connection, or the socket reported an error.
void handle_close(Server& server, const SlotPtr& slot);
void handle_error(Server& server, const SlotPtr& slot);

} // namespace orv::telnet
