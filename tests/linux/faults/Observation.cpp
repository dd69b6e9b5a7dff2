#include "Observation.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <sys/uio.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;

std::string procPath(pid_t process, const std::string& name) {
    return "/proc/" + std::to_string(process) + "/" + name;
}

std::string linkTarget(const std::string& link) {
    std::string text(1 << 14, '\0');
    const ssize_t length = ::readlink(link.c_str(), text.data(), text.size());
    text.resize(length > 0 ? static_cast<std::size_t>(length) : 0);
    return text;
}

std::string readFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

/// The text at an address of the process, read page by page since the next may not be there.
std::string textAt(pid_t process, std::uint64_t address) {
    constexpr std::uint64_t page = 4096;
    std::string text;
    while (address != 0 && text.size() < 2 * page) {
        std::array<char, page> buffer{};
        const std::size_t length = page - address % page;
        const iovec local{buffer.data(), length};
        const iovec remote{reinterpret_cast<void*>(address), length}; // NOLINT: not our address
        const ssize_t got = ::process_vm_readv(process, &local, 1, &remote, 1, 0);
        if (got <= 0) return text;
        const std::string_view piece(buffer.data(), static_cast<std::size_t>(got));
        text += piece.substr(0, piece.find('\0'));
        if (piece.find('\0') != std::string_view::npos) return text;
        address += static_cast<std::uint64_t>(got);
    }
    return text;
}

std::string openFile(pid_t process, int fd) {
    return linkTarget(procPath(process, fd == AT_FDCWD ? "cwd" : "fd/" + std::to_string(fd)));
}

/// A path through a process's own descriptors, made one that says where they lead.
std::string withoutDescriptors(pid_t process, const std::string& path) {
    for (const std::string_view prefix : {"/proc/self/fd/", "/dev/fd/"}) {
        if (!path.starts_with(prefix)) continue;
        const std::size_t end = std::min(path.find('/', prefix.size()), path.size());
        const std::string number = path.substr(prefix.size(), end - prefix.size());
        return linkTarget(procPath(process, "fd/" + number)) + path.substr(end);
    }
    return path;
}

int descriptorAt(const seccomp_notif& request, int argument) {
    if (argument == Operand::none) return AT_FDCWD;
    return static_cast<int>(static_cast<std::uint32_t>(request.data.args[argument]));
}

std::string fullPath(const seccomp_notif& request, const Operand& operand) {
    const auto process = static_cast<pid_t>(request.pid);
    const int fd = descriptorAt(request, operand.descriptor);
    std::string path;
    if (operand.path != Operand::none) path = textAt(process, request.data.args[operand.path]);
    path = withoutDescriptors(process, path);
    if (!path.starts_with('/')) {
        const std::string start = openFile(process, fd);
        path = path.empty() ? start : start + "/" + path;
    }
    path = fs::path(path).lexically_normal().string();
    while (path.size() > 1 && path.ends_with('/')) path.pop_back();
    return path;
}

bool isAtOrBelow(std::string_view path, std::string_view directory) {
    return path.starts_with(directory) &&
           (path.size() == directory.size() || path[directory.size()] == '/');
}

/// A mount point as the kernel's table writes it, in which some characters are octal numbers.
std::string decoded(const std::string& text) {
    std::string result;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '\\' || i + 3 >= text.size()) {
            result += text[i];
            continue;
        }
        result += static_cast<char>(std::stoi(text.substr(i + 1, 3), nullptr, 8));
        i += 3;
    }
    return result;
}

/// Whether a path lies in a file system that a program serves, as the process sees it.
bool isServed(pid_t process, std::string_view path) {
    std::istringstream lines(readFile(procPath(process, "mountinfo")));
    for (std::string line; std::getline(lines, line);) {
        if (line.find(" - fuse") == std::string::npos) continue;
        std::istringstream fields(line);
        std::string point;
        for (int field = 0; field < 5; ++field) fields >> point;
        if (isAtOrBelow(path, decoded(point))) return true;
    }
    return false;
}

std::string relative(const std::string& path, std::string_view directory) {
    if (!isAtOrBelow(path, directory)) return path;
    return path.size() == directory.size() ? "." : path.substr(directory.size() + 1);
}

} // namespace

Observation Observation::of(const seccomp_notif& request, const Call& call,
                            std::string_view directory) {
    Observation found;
    if (!call.first.given()) return found;
    const std::string path = fullPath(request, call.first);
    found.path = relative(path, directory);
    found.elsewhere = !isAtOrBelow(path, directory);
    if (call.second.given()) {
        const std::string second = fullPath(request, call.second);
        found.secondPath = relative(second, directory);
        found.elsewhere = found.elsewhere && !isAtOrBelow(second, directory);
    }
    if (!found.elsewhere)
        found.place = isServed(static_cast<pid_t>(request.pid), path) ? "volume" : "disk";
    return found;
}

std::string programOf(pid_t process) {
    const std::string line = readFile(procPath(process, "cmdline"));
    std::string name = fs::path(line.c_str()).filename().string();
    if (name != "hdiutil" || line.size() <= std::strlen(line.c_str()) + 1) return name;
    return name + " " + (line.c_str() + std::strlen(line.c_str()) + 1);
}

bool isWritable(pid_t process, int fd) {
    std::istringstream lines(readFile(procPath(process, "fdinfo/" + std::to_string(fd))));
    for (std::string name, value; lines >> name >> value;) {
        if (name == "flags:") return (std::stoi(value, nullptr, 8) & O_ACCMODE) != O_RDONLY;
    }
    return false;
}
