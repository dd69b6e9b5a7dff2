// Prints what happens to the user's session and volumes, one event a line, and obeys its input:
// "ready" is what a program says that is ready for power-off, the end of the input ends the
// program.

#include "Quillvane/SystemEvents.h"
#include "Quillvane/TerminationSignals.h"

#include <QCoreApplication>
#include <QSocketNotifier>

#include <array>
#include <filesystem>
#include <iostream>
#include <string>
#include <unistd.h>

namespace {

void print(const std::string& line) {
    std::cout << line << std::endl; // whoever reads waits for it
}

std::string printable(const std::filesystem::path& path) {
    std::string text;
    for (const char c : path.native()) text += c == '\n' ? "\\n" : std::string(1, c);
    return text;
}

void obey(SystemEvents& events) {
    std::array<char, 64> piece{};
    const ssize_t got = ::read(STDIN_FILENO, piece.data(), piece.size());
    if (got <= 0) return QCoreApplication::quit();
    if (std::string(piece.data(), static_cast<std::size_t>(got)) != "ready\n")
        return QCoreApplication::exit(1);
    events.readyForPowerOff();
    print("told that we are ready");
}

} // namespace

int main(int argc, char* argv[]) {
    const QCoreApplication application(argc, argv);
    TerminationSignals signals_;
    const auto events = SystemEvents::ofThisSystem();
    QObject::connect(events.get(), &SystemEvents::screenLocked, [] { print("screen locked"); });
    QObject::connect(events.get(), &SystemEvents::poweringOff, [] { print("powering off"); });
    QObject::connect(
        events.get(), &SystemEvents::volumeUnmounted,
        [](const std::filesystem::path& path) { print("unmounted " + printable(path)); });
    QObject::connect(&signals_, &TerminationSignals::received,
                     [](int number) { print("signal " + std::to_string(number)); });
    QSocketNotifier input(STDIN_FILENO, QSocketNotifier::Read);
    QObject::connect(&input, &QSocketNotifier::activated, [&] { obey(*events); });
    print("started");
    const int status = QCoreApplication::exec();
    print("ended");
    return status;
}
