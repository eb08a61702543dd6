#pragma once
// The shell's chmod, chown and chgrp: one argument scheme (operand, then a path that may end
// in a name pattern) and one ownership rule (the owner, or any user with an ID below 100).
#include "core/conn_slot.hpp"

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

namespace orv {
class Server;
}

namespace orv::telnet {

struct ModeParse {
    enum Kind { Ok, Symbolic, Invalid, Ignored } kind = Ignored;
    std::array<uint8_t, 9> flags{}; // owner rwx, group rwx, other rwx when Ok
};
// The octal mode of chmod: up to three digits, padded on the left with "0".
ModeParse parse_chmod_mode(std::string_view mode);

void chmod_thread(Server& server, const SlotPtr& slot, std::string arg);
void chown_thread(Server& server, const SlotPtr& slot, std::string arg);
void chgrp_thread(Server& server, const SlotPtr& slot, std::string arg);

} // namespace orv::telnet
