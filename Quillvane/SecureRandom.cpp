#include "SecureRandom.h"

#include "Fatal.h"

#include <openssl/rand.h>

#include <limits>

namespace SecureRandom {

Secret bytes(std::ptrdiff_t count) {
    if (count < 0 || count > std::numeric_limits<int>::max())
        stopProgram("a count of random bytes is out of range");
    Secret random(static_cast<std::size_t>(count));
    if (count > 0 && RAND_priv_bytes(random.writable().data(), static_cast<int>(count)) != 1)
        stopProgram("the system's random generator failed");
    return random;
}

} // namespace SecureRandom
