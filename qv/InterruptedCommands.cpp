#include "qv/InterruptedCommands.h"

#include "Quillvane/InterruptedWork.h"
#include "Quillvane/ItemPath.h"
#include "qv/Interruption.h"
#include "qv/ProgressDisplay.h"
#include "qv/ResultOutput.h"
#include "qv/SecretChoice.h"

#include <algorithm>
#include <functional>
#include <optional>

namespace {

using InterruptedWork::Found;
using InterruptedWork::Outcome;

std::string withCommands(const Found& found) {
    const std::string text = InterruptedWork::text(found);
    if (!InterruptedWork::canBeEnded(found)) return text;
    const std::string place = " \"" + InterruptedWork::place(found).native() + "\"";
    return text + " To end this: qv finish" + place + " or qv undo" + place;
}

/// What was interrupted with the folder, item or working image at the path.
Found foundAt(const std::string& operand) {
    const auto path = itemPath(operand);
    const auto name = path.filename().native();
    const auto found = InterruptedWork::findIn(path.parent_path());
    const auto at = std::ranges::find_if(found, [&](const Found& one) {
        const auto& contents = one.contents;
        return name == contents.folder || name == contents.item || name == contents.image;
    });
    if (at == found.end())
        throw std::runtime_error("Nothing was interrupted with \"" + name + "\".");
    return *at;
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
        for (const Found& found : InterruptedWork::find()) printResult({withCommands(found)});
        return;
    }
    const Found found = foundAt(arguments.operand);
    end(&InterruptedWork::finish, found, InterruptedWork::finishNeedsSecret(found), arguments);
}

void undoInterrupted(const Arguments& arguments) {
    const Found found = foundAt(arguments.operand);
    end(&InterruptedWork::undo, found, InterruptedWork::undoNeedsSecret(found), arguments);
}
