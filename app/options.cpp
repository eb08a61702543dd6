#include "app/options.hpp"

namespace orv {

std::string usage_text() {
    return "usage: orvane-server [--headless] [-C DIR]\n"
           "       orvane-server [-C DIR] --encode-password NAME PASSWORD\n"
           "       orvane-server [-C DIR] admin COMMAND...   (admin help: the commands)\n"
           "       orvane-server --help | --version\n"
           "\n"
           "  --headless              run without the desktop window (log to standard output)\n"
           "  -C DIR                  use DIR as the start directory (settings and tables)\n"
           "  --encode-password N P   print the stored form of password P for account N\n";
}

std::optional<Options> parse_options(const std::vector<std::string>& args, std::string& error) {
    Options o;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& a = args[i];
        if (a == "--headless") {
            o.headless = true;
        } else if (a == "-C") {
            if (i + 1 >= args.size()) {
                error = "option -C needs a directory";
                return std::nullopt;
            }
            o.start_dir = args[++i];
        } else if (a == "--help" || a == "-h") {
            o.help = true;
        } else if (a == "--version") {
            o.version = true;
        } else if (a == "--encode-password") {
            if (i + 2 >= args.size()) {
                error = "option --encode-password needs a name and a password";
                return std::nullopt;
            }
            o.encode_password = true;
            o.encode_name = args[i + 1];
            o.encode_password_text = args[i + 2];
            i += 2;
        } else if (a == "admin") {
            o.admin = true;
            o.admin_args.assign(args.begin() + static_cast<long>(i) + 1, args.end());
            break;
        } else {
            error = "unknown option: " + a;
            return std::nullopt;
        }
    }
    return o;
}

} // namespace orv
