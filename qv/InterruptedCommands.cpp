#include "qv/InterruptedCommands.h"

#include "Quillvane/InterruptedWork.h"
#include "Quillvane/ItemPath.h"
#include "Quillvane/PrintableText.h"
#include "qv/Interruption.h"
#include "qv/ProgressDisplay.h"
#include "qv/ResultOutput.h"
#include "qv/SecretChoice.h"

#include <algorithm>
#include <functional>
#include <optional>
#include <set>
#include <vector>

namespace {

using InterruptedWork::Found;
using InterruptedWork::Outcome;

std::string withCommands(const Found& found) {
    std::string text = InterruptedWork::text(found);
    if (!InterruptedWork::canBeEnded(found)) return text;
    const std::string place = " " + shellWord(InterruptedWork::place(found).native());
    return text + " To end this: qv finish" + place + " or qv undo" + place;
}

/// A path that means this one alone among the others.
std::string pathTo(const Found& one, const std::vector<Found>& others) {
    const auto place = InterruptedWork::place(one);
    const auto& contents = one.contents;
    const bool shared = std::ranges::count(others, place, &InterruptedWork::place) > 1;
    const bool byImage = shared && !contents.image.empty();
    return shellWord(byImage ? (contents.directory / contents.image).native() : place.native());
}

/// Throws unless all of them are called the same; then whichever is ended first will do.
void requireOne(const std::vector<Found>& found, const std::string& name) {
    std::set<std::string> paths;
    std::string list;
    for (const Found& one : found)
        if (const auto path = pathTo(one, found); paths.insert(path).second)
            list += "\n" + path + ": " + InterruptedWork::text(one);
    if (paths.size() > 1)
        throw std::runtime_error("More than one operation was interrupted with \"" + name +
                                 "\". Say which one by its path:" + list);
}

/// What was interrupted with the folder, item or working image at the path. One that is called so
/// comes before those that only made, or would make, something of that name.
Found foundAt(const std::string& operand) {
    const auto path = itemPath(operand);
    const auto name = path.filename().native();
    auto found = InterruptedWork::findIn(path.parent_path());
    const auto isCalledSo = [&](const Found& one) {
        return name == InterruptedWork::place(one).filename().native();
    };
    const bool called = std::ranges::any_of(found, isCalledSo);
    std::erase_if(found, [&](const Found& one) {
        const auto& contents = one.contents;
        return called ? !isCalledSo(one)
                      : name != contents.folder && name != contents.item && name != contents.image;
    });
    if (found.empty()) throw std::runtime_error("Nothing was interrupted with \"" + name + "\".");
    requireOne(found, name);
    return found.front();
}

using End = Outcome (*)(const Found&, const std::optional<Credential>&, const ProgressCallback&,
                        Cancellation*);

void end(End operation, const Found& found, bool needsSecret, const Arguments& arguments) {
    printMessage(InterruptedWork::text(found));
    std::optional<Credential> credential;
    if (needsSecret) credential = askCredential(*secretSource(arguments), arguments, "Password");
    Outcome outcome;
    {
        ProgressDisplay display;
        outcome = operation(
            found, credential, [&](const Progress& progress) { display.show(progress); },
            &Interruption::cancellation());
    }
    if (!outcome.message.empty()) printMessage(outcome.message);
    if (outcome.result) printResult({outcome.result->native()});
}

} // namespace

void tellInterrupted(const std::string& operand, std::set<std::string>& told) {
    try {
        for (const Found& found : InterruptedWork::findIn(itemPath(operand).parent_path()))
            if (const std::string text = withCommands(found); told.insert(text).second)
                printMessage(text);
    } catch (const std::exception&) {
        return; // the command itself will say what is wrong
    }
}

void finishInterrupted(const Arguments& arguments) {
    if (arguments.operand.empty()) {
        for (const Found& found : InterruptedWork::find())
            printResult({printableLines(withCommands(found))});
        return;
    }
    const Found found = foundAt(arguments.operand);
    end(&InterruptedWork::finish, found, InterruptedWork::finishNeedsSecret(found), arguments);
}

void undoInterrupted(const Arguments& arguments) {
    const Found found = foundAt(arguments.operand);
    end(&InterruptedWork::undo, found, InterruptedWork::undoNeedsSecret(found), arguments);
}
