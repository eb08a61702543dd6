// The groups file against a fixed set of users: read, linked, written and read again. Both
// membership chains must agree, and a file we wrote reads back to the same groups.
#include "accounts/accounts.hpp"
#include "core/log.hpp"
#include "fuzz/fuzz_world.hpp"

#include <algorithm>
#include <vector>

using namespace orv;

namespace {

const char kUsers[] = "anna:101:x:2:15:\\\n"
                      "bob:102:x:2:15:\\pub\n"
                      "root:10:x:2:15:\\\n"
                      "carl:103:x:2:15:\\\n";

std::string load(Accounts& accounts, const std::string& groups) {
    Log log;
    accounts.read_groups(fuzz::write_scratch("groups", groups), log);
    accounts.read_users(fuzz::write_scratch("users", kUsers), log);
    accounts.link_groups(fuzz::scratch_dir() / "groups", log);
    return accounts.groups_text();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string text(reinterpret_cast<const char*>(data), size);
    Accounts accounts;
    std::string written = load(accounts, text);
    for (const auto& group : accounts.groups()) {
        fuzz::check(group->name.size() <= kMaxGroupName, "group name over its limit");
        for (User* member : group->members)
            fuzz::check(member->in_group(group.get()), "member without the membership");
    }
    for (const auto& user : accounts.users())
        for (Group* group : user->memberships)
            fuzz::check(std::count(group->members.begin(), group->members.end(), user.get()) > 0,
                        "membership without the member");

    // Deleting every user and group leaves no dangling member or membership behind.
    while (!accounts.users().empty())
        accounts.remove_user(accounts.users().front());
    for (const auto& group : accounts.groups())
        fuzz::check(group->members.empty(), "a deleted user is still a member");

    // Group names are unique in files we write only when they were unique in the input, and
    // linking goes by name: compare only then.
    if (fuzz::plain_file(text)) {
        Accounts first;
        std::string once = load(first, text);
        std::vector<std::string> names;
        for (const auto& group : first.groups())
            names.push_back(group->name);
        std::sort(names.begin(), names.end());
        bool unique = std::adjacent_find(names.begin(), names.end()) == names.end();
        if (unique) {
            Accounts second;
            std::string twice = load(second, once);
            std::vector<std::string> a = fuzz::lines_of(once), b = fuzz::lines_of(twice);
            std::reverse(b.begin(), b.end());
            fuzz::check(a == b, "the groups file does not read back to what was written");
        }
    }
    return 0;
}
