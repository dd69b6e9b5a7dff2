#pragma once

#include "Quillvane/Platform.h"
#include "tests/support/TemporaryFolder.h"

#include <optional>
#include <sys/stat.h>
#include <vector>

/// Stand-ins for the system's tools that record how they are called and play what the test wrote
/// for them. They are in place while the object lives, and so is a state directory.
///
/// By themselves they do what goes well: `hdiutil create` makes an image file, `attach` names the
/// mount point `mountPoint()`, `ditto` copies.
class RecordingTools {
public:
    struct Call {
        std::string tool;
        std::vector<std::string> arguments;
        /// What came in on standard input; only read when the arguments announce a passphrase.
        std::optional<std::string> standardInput;

        bool operator==(const Call&) const = default;
    };

    RecordingTools() : former_(Platform::tools()) {
        std::filesystem::create_directory(mountPoint());
        for (const char* tool : {"hdiutil", "ditto", "open", "mount"}) install(tool);
        play("hdiutil", "create", "for image; do :; done; printf image > \"$image\"");
        play("hdiutil", "attach", "cat \"$here/attached.plist\"");
        play("ditto", "", "cp -a \"$1/.\" \"$2\"");
        answerAttach("<key>system-entities</key><array>"
                     "<dict><key>dev-entry</key><string>/dev/disk4</string></dict>"
                     "<dict><key>dev-entry</key><string>/dev/disk4s1</string>"
                     "<key>mount-point</key><string>" +
                     mountPoint() + "</string></dict></array>");
        Platform::setTools(
            {folder_ / "hdiutil", folder_ / "ditto", folder_ / "open", folder_ / "mount", true});
        Platform::setStateDirectory(stateDirectory());
    }
    ~RecordingTools() {
        Platform::setStateDirectory({});
        Platform::setTools(former_);
    }
    RecordingTools(const RecordingTools&) = delete;
    RecordingTools& operator=(const RecordingTools&) = delete;

    std::string mountPoint() const { return (folder_ / "volume").string(); }
    std::filesystem::path tool(const std::string& name) const { return folder_ / name; }
    std::filesystem::path folder() const { return folder_.path(); }
    std::filesystem::path stateDirectory() const { return folder_ / "state"; }
    /// Notes of operations that are under way or were interrupted.
    std::vector<std::filesystem::path> notes() const {
        std::vector<std::filesystem::path> found;
        std::error_code none;
        for (const auto& entry :
             std::filesystem::directory_iterator(stateDirectory() / "operations", none))
            found.push_back(entry.path());
        return found;
    }

    /// The shell script that the tool runs when its first argument is `verb` ("" for any). In it
    /// `$here` is the stand-ins' folder. The last command's status is the tool's.
    void play(const std::string& tool, const std::string& verb, const std::string& script) {
        writeFile(folder_ / (tool + "." + verb + ".play"), script + "\n");
    }
    /// The members of the property list that `hdiutil attach` prints.
    void answerAttach(const std::string& members) {
        writeFile(folder_ / "attached.plist",
                  "<?xml version=\"1.0\" encoding=\"UTF-8\"?><plist version=\"1.0\"><dict>" +
                      members + "</dict></plist>");
    }
    /// So that it cannot be launched.
    void uninstall(const std::string& tool) { std::filesystem::remove(folder_ / tool); }

    /// Every call so far, in order.
    std::vector<Call> calls() const {
        std::vector<Call> calls;
        for (int number = 1;; ++number) {
            const auto argv = folder_ / ("call-" + std::to_string(number));
            if (!std::filesystem::exists(argv)) return calls;
            calls.push_back(readCall(argv));
        }
    }
    /// As `calls()`, tool and arguments joined by blanks.
    std::vector<std::string> commandLines() const {
        std::vector<std::string> lines;
        for (const Call& call : calls()) {
            lines.push_back(call.tool);
            for (const std::string& argument : call.arguments) lines.back() += " " + argument;
        }
        return lines;
    }

private:
    void install(const std::string& tool) {
        writeFile(folder_ / tool, R"(#!/bin/sh
here=${0%/*}
tool=${0##*/}
number=$(($(cat "$here/count" 2>/dev/null || echo 0) + 1))
echo $number > "$here/count"
printf '%s\0' "$tool" "$@" > "$here/call-$number"
case " $* " in *" -stdinpass "*) cat > "$here/call-$number.stdin" ;; esac
for script in "$here/$tool.$1.play" "$here/$tool..play"; do
    if [ -f "$script" ]; then
        . "$script"
        exit $?
    fi
done
)");
        std::filesystem::permissions(folder_ / tool, std::filesystem::perms::owner_all);
    }

    static Call readCall(const std::filesystem::path& argv) {
        Call call;
        std::string words = readFile(argv);
        for (std::size_t end = 0; (end = words.find('\0')) != std::string::npos;
             words.erase(0, end + 1)) {
            if (call.tool.empty())
                call.tool = words.substr(0, end);
            else
                call.arguments.push_back(words.substr(0, end));
        }
        const std::filesystem::path input = argv.string() + ".stdin";
        if (std::filesystem::exists(input)) call.standardInput = readFile(input);
        return call;
    }

    Platform::Tools former_;
    TemporaryFolder folder_;
};
