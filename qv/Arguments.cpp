#include "qv/Arguments.h"

#include <map>
#include <optional>
#include <string_view>
#include <vector>

const char* const usageLine =
    "usage: qv lock|open|close|remove|change [--stdin] [--recovery-key] PATH   (qv --help)";

const char* const helpText =
    R"(qv - put a password on a folder, from the terminal

usage:
  qv lock FOLDER              protect the folder: it becomes the item FOLDER.quillvane
  qv open ITEM                open the item: its files appear in a volume
  qv close ITEM|MOUNTPOINT    close the volume again
  qv remove ITEM              remove the protection: the item becomes a folder again
  qv change ITEM              change the item's password

options:
  --recovery-key   ask for the recovery key in place of the password (open, remove, change)
  --stdin          read the secrets from standard input, one on each line, in the order in which
                   they are asked for; a new password is given once (lock: the new password;
                   open, remove: the password; change: the current one, then the new one)
  --               what follows is a path, even if it begins with "-"
  -h, --help       show this text
  --version        show the version

Standard output carries results alone: lock prints the item's path and then its recovery key,
which is shown this once; open prints the mount point, remove the folder's path.

exit status: 0 done, 1 failed, 2 wrong usage)";

namespace {

using Command = Arguments::Command;

Command commandNamed(const std::string& word) {
    static const std::map<std::string_view, Command> commands{
        {"lock", Command::lock},     {"open", Command::open},     {"close", Command::close},
        {"remove", Command::remove}, {"change", Command::change}, {"help", Command::help},
    };
    const auto found = commands.find(word);
    if (found == commands.end()) throw UsageError("There is no command \"" + word + "\".");
    return found->second;
}

/// Which options a command understands, and that it has its operand.
void check(const Arguments& arguments, const std::string& name) {
    if (arguments.operand.empty()) throw UsageError("\"" + name + "\" needs a path.");
    const Command command = arguments.command;
    if (arguments.useRecoveryKey && (command == Command::lock || command == Command::close)) {
        throw UsageError("\"" + name + "\" takes no --recovery-key.");
    }
    if (arguments.secretsFromStandardInput && command == Command::close) {
        throw UsageError("\"" + name + "\" asks for no secret and takes no --stdin.");
    }
}

} // namespace

Arguments Arguments::parse(std::span<const char* const> words) {
    Arguments result;
    std::vector<std::string> operands;
    std::optional<Command> instead; // --help or --version, whatever else is there
    bool optionsEnded = false;

    for (const std::string word : words) {
        if (optionsEnded || word.empty() || word.front() != '-' || word == "-") {
            operands.push_back(word);
        } else if (word == "--") {
            optionsEnded = true;
        } else if (word == "--stdin") {
            result.secretsFromStandardInput = true;
        } else if (word == "--recovery-key") {
            result.useRecoveryKey = true;
        } else if (word == "--help" || word == "-h") {
            instead = instead.value_or(Command::help);
        } else if (word == "--version") {
            instead = instead.value_or(Command::version);
        } else {
            throw UsageError("There is no option " + word + ".");
        }
    }

    if (instead) {
        result.command = *instead;
        return result;
    }
    if (operands.empty()) throw UsageError("A command is missing.");
    result.command = commandNamed(operands[0]);
    if (result.command == Command::help) return result;
    if (operands.size() > 2) throw UsageError("There is one path too many: " + operands[2]);
    if (operands.size() == 2) result.operand = operands[1];
    check(result, operands[0]);
    return result;
}
