#pragma once

#include "Quillvane/FilePanels.h"

#include <utility>

/// Panels in which the test chooses, or does not.
class FakePanels : public FilePanels {
public:
    enum class Kind { none, folder, item, textFile };

    void chooseFolder(const QString& itsTitle, Chosen itsChosen) override {
        show(Kind::folder, itsTitle, std::move(itsChosen));
    }
    void chooseItem(const QString& itsTitle, Chosen itsChosen) override {
        show(Kind::item, itsTitle, std::move(itsChosen));
    }
    void chooseTextFileToSave(const QString& itsTitle, const QString& itsName,
                              Chosen itsChosen) override {
        proposedName = itsName;
        show(Kind::textFile, itsTitle, std::move(itsChosen));
    }

    /// The panel shown last.
    Kind kind = Kind::none;
    QString title;
    QString proposedName;
    Chosen chosen;

private:
    void show(Kind itsKind, const QString& itsTitle, Chosen itsChosen) {
        kind = itsKind;
        title = itsTitle;
        chosen = std::move(itsChosen);
    }
};
