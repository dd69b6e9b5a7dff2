#include "Caller.h"

#include <linux/capability.h>

#include <algorithm>
#include <cstdint>
#include <fstream>
#include <ios>
#include <sstream>
#include <string>
#include <vector>

namespace {

struct Credentials {
    std::vector<gid_t> groups;
    bool keepsBits = false;
};

/// What a request does not tell. A process that cannot be seen gets no more than everybody.
Credentials credentialsOf(pid_t process) {
    Credentials found;
    std::ifstream status("/proc/" + std::to_string(process) + "/status");
    for (std::string line; std::getline(status, line);) {
        std::istringstream words(line);
        std::string field;
        words >> field;
        if (field == "Groups:") {
            for (gid_t each = 0; words >> each;) found.groups.push_back(each);
        } else if (field == "CapEff:") {
            std::uint64_t capabilities = 0;
            words >> std::hex >> capabilities;
            found.keepsBits = (capabilities >> CAP_FSETID & 1) != 0;
        }
    }
    return found;
}

} // namespace

bool Caller::actsFor(gid_t wanted) const {
    if (user == 0 || group == wanted) return true;
    const Credentials more = credentialsOf(process);
    return std::find(more.groups.begin(), more.groups.end(), wanted) != more.groups.end();
}

bool Caller::keepsBits() const {
    // Others have what they are told to have in a name space of their own, where it may be all.
    return user == 0 && (process == 0 || credentialsOf(process).keepsBits);
}
