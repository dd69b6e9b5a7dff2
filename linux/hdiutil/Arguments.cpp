#include "Arguments.h"

#include "ToolError.h"

#include <charconv>
#include <functional>
#include <limits>
#include <map>
#include <string_view>

namespace {

using Words = std::span<const char* const>;

// Takes an option's value when it has one.
using Handler = std::function<void(const std::string& value)>;

struct Option {
    bool hasValue;
    Handler handle;
};

using Options = std::map<std::string, Option, std::less<>>;

// Reads `words` by `options`; answers the operand.
std::string parse(Words words, const Options& options, const std::string& operandName) {
    std::string operand;
    for (std::size_t i = 0; i < words.size(); ++i) {
        const std::string word = words[i];
        if (word.empty() || word[0] != '-') {
            if (!operand.empty()) throw UsageError("unexpected argument \"" + word + "\"");
            if (word.empty()) throw UsageError("the " + operandName + " is empty");
            operand = word;
            continue;
        }
        const auto option = options.find(word);
        if (option == options.end()) throw UsageError("unknown option \"" + word + "\"");
        std::string value;
        if (option->second.hasValue) {
            if (++i == words.size()) throw UsageError("option " + word + " needs a value");
            value = words[i];
        }
        option->second.handle(value);
    }
    if (operand.empty()) throw UsageError("no " + operandName + " given");
    return operand;
}

std::uint64_t parseSize(const std::string& text) {
    std::uint64_t number = 0;
    const char* const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, number);
    const std::string_view suffix(rest, static_cast<std::size_t>(end - rest));
    int shift = -1;
    if (suffix == "k") shift = 10;
    if (suffix == "m") shift = 20;
    if (suffix == "g") shift = 30;
    // A quarter of the largest file leaves room for what the volume needs for itself.
    constexpr std::uint64_t largest = std::numeric_limits<std::int64_t>::max() / 4;
    if (error != std::errc() || shift < 0 || number == 0 || number > (largest >> shift))
        throw UsageError("\"" + text + "\" is not a size: give a number and k, m or g");
    return number << shift;
}

void expect(const char* option, const std::string& value, std::string_view only) {
    if (value != only) throw UsageError(std::string(option) + " must be " + std::string(only));
}

MountOptions parseMountOptions(std::string_view list) {
    MountOptions result;
    while (true) {
        const std::size_t comma = list.find(',');
        const std::string_view word = list.substr(0, comma);
        if (word == "allow_other")
            result.otherUsers = true;
        else if (word == "suid")
            result.setUserId = true;
        else if (word == "dev")
            result.deviceFiles = true;
        else
            throw UsageError("unknown mount option \"" + std::string(word) + "\"");
        if (comma == std::string_view::npos) return result;
        list.remove_prefix(comma + 1);
    }
}

void requirePassphraseOption(bool given) {
    // Anything else would put the secret on the command line or ask for it on a terminal.
    if (!given) throw UsageError("option -stdinpass is required");
}

CreateArguments parseCreate(Words words) {
    CreateArguments result;
    bool encrypted = false;
    bool passphrase = false;
    const Options options{
        {"-size", {true, [&](const std::string& v) { result.size = parseSize(v); }}},
        {"-encryption",
         {true,
          [&](const std::string& v) {
              expect("-encryption", v, "AES-256");
              encrypted = true;
          }}},
        {"-stdinpass", {false, [&](const std::string&) { passphrase = true; }}},
        {"-volname",
         {true,
          [&](const std::string& v) {
              if (v.empty()) throw UsageError("the volume name is empty");
              result.volumeName = v;
          }}},
        {"-fs",
         {true,
          [](const std::string& v) {
              // Two names of one thing here: the volume is ext4 with a journal.
              if (v != "APFS" && v != "JHFS+") throw UsageError("-fs must be APFS or JHFS+");
          }}},
        {"-type", {true, [](const std::string& v) { expect("-type", v, "SPARSE"); }}},
    };
    result.image = parse(words, options, "image");
    if (result.size == 0) throw UsageError("option -size is required");
    if (!encrypted) throw UsageError("option -encryption AES-256 is required");
    requirePassphraseOption(passphrase);
    return result;
}

AttachArguments parseAttach(Words words) {
    AttachArguments result;
    bool passphrase = false;
    const Options options{
        {"-stdinpass", {false, [&](const std::string&) { passphrase = true; }}},
        {"-plist", {false, [&](const std::string&) { result.plist = true; }}},
        {"-nobrowse", {false, [&](const std::string&) { result.browsable = false; }}},
        {"-owners",
         {true,
          [](const std::string& v) {
              // "off" would have to ignore every owner on the volume, and we never do.
              expect("-owners", v, "on");
          }}},
        {"-mountpoint",
         {true,
          [&](const std::string& v) {
              if (v.empty()) throw UsageError("the mount point is empty");
              result.mountPoint = v;
          }}},
        {"-mountoptions",
         {true, [&](const std::string& v) { result.mountOptions = parseMountOptions(v); }}},
    };
    result.image = parse(words, options, "image");
    requirePassphraseOption(passphrase);
    return result;
}

DetachArguments parseDetach(Words words) {
    DetachArguments result;
    const Options options{{"-force", {false, [&](const std::string&) { result.force = true; }}}};
    result.target = parse(words, options, "volume");
    return result;
}

} // namespace

Arguments parseArguments(Words arguments) {
    if (arguments.empty()) throw UsageError("no command given");
    const std::string_view verb = arguments[0];
    const Words rest = arguments.subspan(1);
    if (verb == "create") return parseCreate(rest);
    if (verb == "attach") return parseAttach(rest);
    if (verb == "detach") return parseDetach(rest);
    throw UsageError("unknown command \"" + std::string(verb) + "\"");
}
