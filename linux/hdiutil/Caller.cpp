#include "Caller.h"

#include <linux/capability.h>

#include <cstdint>
#include <fstream>
#include <ios>
#include <sstream>
#include <string>

bool Caller::actsFor(gid_t wanted) const {
    if (user == 0 || group == wanted) return true;
    // A request names one group of the caller; the others, and what it may do, are told by /proc. A
    // process that cannot be seen there gets no more than everybody.
    std::ifstream status("/proc/" + std::to_string(process) + "/status");
    for (std::string line; std::getline(status, line);) {
        std::istringstream words(line);
        std::string field;
        words >> field;
        if (field == "Groups:") {
            for (gid_t each = 0; words >> each;)
                if (each == wanted) return true;
        } else if (field == "CapEff:") {
            std::uint64_t capabilities = 0;
            words >> std::hex >> capabilities;
            if ((capabilities >> CAP_FSETID & 1) != 0) return true;
        }
    }
    return false;
}
