// Runs a fuzz target without a fuzzer: on each seed as it is, then on a fixed number of inputs made
// of them. It makes the same inputs each time, so a test that fails does so again.
//
//     fuzz-TARGET SEEDS COUNT [FIRST]    the inputs with the numbers FIRST (0) to FIRST + COUNT
//     fuzz-TARGET INPUT                  one input
//
// The inputs are run by a process of its own. When that ends by itself, or sits over one input for
// too long, the input is written to the current directory, named after the target and its number.

#include "Mutator.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

using Bytes = std::vector<std::uint8_t>;

/// For one input, under a sanitizer and on a busy machine.
constexpr unsigned secondsForOne = 20;

Bytes readFile(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) throw std::runtime_error("cannot read " + path.string());
    return {std::istreambuf_iterator<char>(file), {}};
}

std::vector<Bytes> readSeeds(const std::filesystem::path& folder) {
    std::vector<std::filesystem::path> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder))
        names.push_back(entry.path());
    std::sort(names.begin(), names.end());
    std::vector<Bytes> seeds;
    for (const auto& name : names) seeds.push_back(readFile(name));
    if (seeds.empty()) throw std::runtime_error("no seeds in " + folder.string());
    return seeds;
}

/// The seeds themselves have the first numbers.
Bytes inputWith(const std::vector<Bytes>& seeds, std::uint64_t number) {
    if (number < seeds.size()) return seeds[number];
    return Mutator(number).mutate(seeds[number % seeds.size()]);
}

void runOne(const Bytes& input) {
    ::alarm(secondsForOne);
    LLVMFuzzerTestOneInput(input.data(), input.size());
    ::alarm(0);
}

/// Answers how the process ended; `current` is the number that it was at.
std::string runInChild(const std::vector<Bytes>& seeds, std::uint64_t first, std::uint64_t end,
                       std::uint64_t& current) {
    const pid_t child = ::fork();
    if (child < 0) throw std::runtime_error("fork");
    if (child == 0) {
        for (current = first; current < end; ++current) runOne(inputWith(seeds, current));
        std::exit(EXIT_SUCCESS); // lets a sanitizer look for leaks
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    if (WIFSIGNALED(status) && WTERMSIG(status) == SIGALRM) return "took too long";
    if (WIFSIGNALED(status)) return "ended by signal " + std::to_string(WTERMSIG(status));
    return WEXITSTATUS(status) == 0 ? "" : "ended with status " + std::to_string(status >> 8);
}

int runMany(const std::string& program, const char* folder, std::uint64_t count,
            std::uint64_t first) {
    const std::vector<Bytes> seeds = readSeeds(folder);
    auto* current = static_cast<std::uint64_t*>(::mmap(
        nullptr, sizeof(std::uint64_t), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    if (current == MAP_FAILED) throw std::runtime_error("mmap");
    const std::string end = runInChild(seeds, first, first + count, *current);
    if (end.empty()) {
        std::cout << count << " inputs\n";
        return EXIT_SUCCESS;
    }
    const std::string name = program + "-" + std::to_string(*current);
    const Bytes input = inputWith(seeds, *current);
    std::ofstream(name, std::ios::binary)
        .write(reinterpret_cast<const char*>(input.data()),
               static_cast<std::streamsize>(input.size()));
    std::cerr << "Input " << *current << ' ' << end << "; it is in " << name << '\n';
    return EXIT_FAILURE;
}

} // namespace

int main(int count, char** arguments) {
    try {
        if (count == 2) {
            runOne(readFile(arguments[1]));
            return EXIT_SUCCESS;
        }
        if (count == 3 || count == 4)
            return runMany(std::filesystem::path(arguments[0]).filename(), arguments[1],
                           std::stoull(arguments[2]), count == 4 ? std::stoull(arguments[3]) : 0);
        std::cerr << "usage: " << arguments[0] << " SEEDS COUNT [FIRST] | INPUT\n";
    } catch (const std::exception& error) {
        std::cerr << arguments[0] << ": " << error.what() << '\n';
    }
    return EXIT_FAILURE;
}
