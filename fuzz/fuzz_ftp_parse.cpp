// The pure pieces of the FTP control path: cutting a line out of the command buffer, splitting
// it into verb and argument, and reading back a PORT argument and a TYPE argument.
#include "ftpd/control_connection.hpp"
#include "ftpd/data_connection.hpp"
#include "ftpd/dispatcher.hpp"
#include "ftpd/listing.hpp"
#include "fuzz/fuzz_world.hpp"

#include <string>

using namespace orv;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string text(reinterpret_cast<const char*>(data), size);

    // Line cutting: a line never holds a line end, and the buffer only ever shrinks by the line
    // and at most two more characters.
    std::string buffer = text;
    for (int guard = 0; guard < 1000; ++guard) {
        size_t before = buffer.size();
        std::string line = take_command_line(buffer);
        fuzz::check(line.find_first_of("\r\n") == std::string::npos, "line holds a line end");
        fuzz::check(buffer.size() <= before, "buffer grew");
        if (buffer.size() == before)
            break;
        fuzz::check(before - buffer.size() <= line.size() + 2, "cut more than the line");

        ParsedCommand cmd = parse_ftp_command(line);
        fuzz::check(cmd.index >= -1 && cmd.index < static_cast<int>(kFtpVerbs.size()),
                    "verb index out of the table");
        fuzz::check(cmd.argument.empty() ||
                        (cmd.argument.front() != ' ' && cmd.argument.back() != ' '),
                    "argument not trimmed");
        fuzz::check(cmd.argument.size() <= line.size(), "argument longer than the line");
    }

    ParsedCommand cmd = parse_ftp_command(text);
    std::string stored = "kept";
    std::string reply = port_reply(cmd.argument, stored);
    fuzz::check(stored == "kept" || stored.size() < 24, "PORT kept an argument of 24 or more");
    PortTarget target = decode_port_arg(stored);
    fuzz::check(target.port >= 0, "negative port");

    char type = 'A';
    type_reply(cmd.argument, type);
    fuzz::check(type == 'A' || type == 'I', "unknown transfer type");
    std::string word = listing_word(cmd.argument);
    fuzz::check(!word.empty(), "listing word empty");
    return 0;
}
