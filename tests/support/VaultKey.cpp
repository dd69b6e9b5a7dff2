// vault-key FILE: prints, in hexadecimal, the vault key that a key file holds for the password that
// is on standard input, up to its end. Fails when the password is not the file's.

#include "tests/support/KeyFileReader.h"

#include <cstdlib>
#include <fstream>
#include <iostream>
#include <iterator>

namespace {

std::string readAll(std::istream& stream) {
    return {std::istreambuf_iterator<char>(stream), {}};
}

} // namespace

int main(int count, char** arguments) {
    if (count != 2) {
        std::cerr << "usage: vault-key FILE\n";
        return EXIT_FAILURE;
    }
    std::ifstream file(arguments[1], std::ios::binary);
    const auto key = KeyFileReader::vaultKey(readAll(file), readAll(std::cin));
    if (!key) return EXIT_FAILURE;
    for (const char c : *key) {
        constexpr char digits[] = "0123456789abcdef";
        const auto byte = static_cast<unsigned char>(c);
        std::cout << digits[byte >> 4] << digits[byte & 15];
    }
    return EXIT_SUCCESS;
}
