// faults [OPTION VALUE]… COMMAND… [--then COMMAND…]…: runs commands, one after the other, in a
// process and mount namespace of their own, and makes a fault at one of the system calls by which
// the last of them, or any process that came of it or of the earlier ones, changes the disk.
//
//   --below DIRECTORY    only calls that change something at or below it count; absolute
//   --log FILE           where each of these calls is written down, see Supervisor.h
//   --stdin FILE         what each command reads
//   --user NUMBER        who runs them, instead of root
//   --stop-at NUMBER     everything is killed before this call
//   --kill-at NUMBER     the process that makes this call is killed before it
//   --fail-at NUMBER     this call fails with --error
//   --fail-from NUMBER   this and all later ones do that can
//   --meanwhile-at NUMBER  before this call the program of --meanwhile runs, as root and unseen
//   --meanwhile FILE
//   --by PROGRAM         the number counts only the calls of this one, as the log names it
//   --error ENOSPC|EIO|EACCES
//   --settle SECONDS     how long other processes may take to end after the last command
//
// In the end nothing runs any more. Exits with 0 when the run was carried out, however the command
// ended; with 77 where the system does not offer what is needed; with 1 when it went wrong.
// Needs root.

#include "Supervisor.h"

#include <cerrno>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <iostream>
#include <span>

namespace {

struct Arguments {
    std::string directory;
    std::string log = "/dev/null";
    Confinement::Options commands;
    Fault fault;
    Supervisor::Limits limits;
};

int errorNamed(const std::string& name) {
    if (name == "ENOSPC") return ENOSPC;
    if (name == "EIO") return EIO;
    if (name == "EACCES") return EACCES;
    throw std::invalid_argument(name);
}

void setFault(Fault& fault, Fault::Kind kind, const std::string& at) {
    fault.kind = kind;
    fault.at = std::stoull(at);
}

void setOption(Arguments& arguments, const std::string& name, const std::string& value) {
    if (name == "--below")
        arguments.directory = value;
    else if (name == "--log")
        arguments.log = value;
    else if (name == "--stdin")
        arguments.commands.standardInput = value;
    else if (name == "--user")
        arguments.commands.user = static_cast<uid_t>(std::stoul(value));
    else if (name == "--stop-at")
        setFault(arguments.fault, Fault::Kind::stop, value);
    else if (name == "--kill-at")
        setFault(arguments.fault, Fault::Kind::kill, value);
    else if (name == "--fail-at")
        setFault(arguments.fault, Fault::Kind::error, value);
    else if (name == "--fail-from")
        setFault(arguments.fault, Fault::Kind::errors, value);
    else if (name == "--meanwhile-at")
        setFault(arguments.fault, Fault::Kind::meanwhile, value);
    else if (name == "--meanwhile")
        arguments.fault.meanwhile = value;
    else if (name == "--by")
        arguments.fault.program = value;
    else if (name == "--error")
        arguments.fault.error = errorNamed(value);
    else if (name == "--settle")
        arguments.limits.settling = std::chrono::seconds(std::stoi(value));
    else
        throw std::invalid_argument(name);
}

Arguments parse(std::span<char*> words) {
    Arguments arguments;
    std::size_t next = 0;
    for (; next + 1 < words.size() && words[next][0] == '-'; next += 2)
        setOption(arguments, words[next], words[next + 1]);
    arguments.commands.commands.emplace_back();
    for (; next < words.size(); ++next) {
        const std::string word = words[next];
        if (word == "--then")
            arguments.commands.commands.emplace_back();
        else
            arguments.commands.commands.back().push_back(word);
    }
    for (const Confinement::Command& command : arguments.commands.commands)
        if (command.empty()) throw std::invalid_argument("a command is missing");
    return arguments;
}

void run(const Arguments& arguments) {
    std::ofstream log(arguments.log);
    Confinement confinement(arguments.commands);
    Supervisor(confinement, arguments.directory, arguments.fault, arguments.limits, log).run();
    if (!log) throw std::runtime_error("cannot write the log");
}

} // namespace

int main(int count, char** words) {
    constexpr int skipped = 77;
    try {
        run(parse(std::span(words + 1, static_cast<std::size_t>(count - 1))));
        return EXIT_SUCCESS;
    } catch (const NotSupported& error) {
        std::cerr << "faults: " << error.what() << '\n';
        return skipped;
    } catch (const std::exception& error) {
        std::cerr << "faults: " << error.what() << '\n';
        return EXIT_FAILURE;
    }
}
