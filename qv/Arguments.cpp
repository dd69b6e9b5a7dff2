#include "qv/Arguments.h"

#include <charconv>
#include <map>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

const char* const usageLine =
    "usage: qv lock|open|close|remove|change|smart|finish|undo [OPTION…] PATH   (qv --help)";

const char* const helpText =
    R"(qv - put a password on a folder, from the terminal

usage:
  qv lock FOLDER              protect the folder: it becomes the item FOLDER.quillvane
  qv open ITEM                open the item: its files appear in a volume
  qv close ITEM|MOUNTPOINT    close the volume again
  qv remove ITEM              remove the protection: the item becomes a folder again
  qv change ITEM              change the item's password
  qv smart ITEM               open the item in place, as a folder where it lies, and stay until the
                              folder is closed: some time after it was opened, when the screen is
                              locked, at logout, or by Ctrl-C
  qv smart --close ITEM       close the item's folder
  qv finish                   list what was interrupted, by a crash or a power failure
  qv finish FOLDER|ITEM       finish the interrupted protection of the folder, or the interrupted
                              removal of the item's protection
  qv undo FOLDER|ITEM         bring back what was there before it

options:
  --recovery-key   ask for the recovery key in place of the password (open, remove, change,
                   smart, finish, undo)
  --stdin          read the secrets from standard input, one on each line, in the order in which
                   they are asked for; a new password is given once (lock: the new password;
                   open, remove, smart: the password; change: the current one, then the new one;
                   finish, undo: the password, if it takes one)
  --minutes N      smart: close the folder after N minutes, and while a file in it is open try
                   again after as many (1 to 1440; 5 if not given)
  --               what follows is a path, even if it begins with "-"
  -h, --help       show this text
  --version        show the version

Standard output carries results alone: lock prints the item's path and then its recovery key,
which is shown this once; open prints the mount point, remove and smart the folder's path, finish
and undo the path of what there is then.

exit status: 0 done, 1 failed, 2 wrong usage)";

namespace {

using Command = Arguments::Command;

Command commandNamed(const std::string& word) {
    static const std::map<std::string_view, Command> commands{
        {"lock", Command::lock},     {"open", Command::open},     {"close", Command::close},
        {"remove", Command::remove}, {"change", Command::change}, {"smart", Command::smart},
        {"finish", Command::finish}, {"undo", Command::undo},     {"help", Command::help},
    };
    const auto found = commands.find(word);
    if (found == commands.end()) throw UsageError("There is no command \"" + word + "\".");
    return found->second;
}

constexpr int longestMinutes = 24 * 60;

int minutesFrom(const std::string& word) {
    int minutes = 0;
    const char* const end = word.data() + word.size();
    const auto [rest, error] = std::from_chars(word.data(), end, minutes);
    if (error != std::errc() || rest != end || minutes < 1 || minutes > longestMinutes)
        throw UsageError("\"--minutes\" needs a whole number from 1 to 1440.");
    return minutes;
}

/// Which options a command understands, and that it has its operand.
void check(const Arguments& arguments, const std::string& name) {
    const Command command = arguments.command;
    if (arguments.operand.empty() && command != Command::finish)
        throw UsageError("\"" + name + "\" needs a path.");
    if (command != Command::smart && (arguments.minutes || arguments.closeSmartFolder)) {
        throw UsageError("Only \"smart\" takes --minutes and --close.");
    }
    if (arguments.closeSmartFolder &&
        (arguments.minutes || arguments.useRecoveryKey || arguments.secretsFromStandardInput)) {
        throw UsageError("\"smart --close\" takes no other option.");
    }
    if (arguments.useRecoveryKey && (command == Command::lock || command == Command::close)) {
        throw UsageError("\"" + name + "\" takes no --recovery-key.");
    }
    if (arguments.secretsFromStandardInput && command == Command::close) {
        throw UsageError("\"" + name + "\" asks for no secret and takes no --stdin.");
    }
}

/// Notes the option in `result`; what to do instead of the command, when one asks for that.
std::optional<Command> readOption(const std::string& word, Arguments& result,
                                  std::optional<Command> instead) {
    if (word == "--help" || word == "-h") return instead.value_or(Command::help);
    if (word == "--version") return instead.value_or(Command::version);
    if (word == "--stdin")
        result.secretsFromStandardInput = true;
    else if (word == "--recovery-key")
        result.useRecoveryKey = true;
    else if (word == "--close")
        result.closeSmartFolder = true;
    else
        throw UsageError("There is no option " + word + ".");
    return instead;
}

} // namespace

Arguments Arguments::parse(std::span<const char* const> words) {
    Arguments result;
    std::vector<std::string> operands;
    std::optional<Command> instead; // --help or --version, whatever else is there
    bool optionsEnded = false;
    bool minutesFollow = false;

    for (const std::string word : words) {
        if (std::exchange(minutesFollow, false)) {
            result.minutes = minutesFrom(word);
        } else if (optionsEnded || word.empty() || word.front() != '-' || word == "-") {
            operands.push_back(word);
        } else if (word == "--") {
            optionsEnded = true;
        } else if (word == "--minutes") {
            minutesFollow = true;
        } else if (word.starts_with("--minutes=")) {
            result.minutes = minutesFrom(word.substr(word.find('=') + 1));
        } else {
            instead = readOption(word, result, instead);
        }
    }

    if (instead) {
        result.command = *instead;
        return result;
    }
    if (minutesFollow) throw UsageError("\"--minutes\" needs a number.");
    if (operands.empty()) throw UsageError("A command is missing.");
    result.command = commandNamed(operands[0]);
    if (result.command == Command::help) return result;
    if (operands.size() > 2) throw UsageError("There is one path too many: " + operands[2]);
    if (operands.size() == 2) result.operand = operands[1];
    check(result, operands[0]);
    return result;
}
