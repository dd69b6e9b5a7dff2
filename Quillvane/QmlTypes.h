#pragma once

#include "ContentModel.h"
#include "InterruptedFindings.h"
#include "OpenRouter.h"
#include "SmartFolderManager.h"
#include "SystemWords.h"
#include "TermsOfUse.h"
#include "VaultViewModel.h"

#include <QAbstractItemModel>
#include <QtQml/qqml.h>

// The objects that the window is given, known to QML by their types. None is made there.

struct VaultViewModelForQml {
    Q_GADGET
    QML_FOREIGN(VaultViewModel)
    QML_NAMED_ELEMENT(VaultViewModel)
    QML_UNCREATABLE("made by the program")
};

struct SmartFolderManagerForQml {
    Q_GADGET
    QML_FOREIGN(SmartFolderManager)
    QML_NAMED_ELEMENT(SmartFolderManager)
    QML_UNCREATABLE("made by the program")
};

struct ContentModelForQml {
    Q_GADGET
    QML_FOREIGN(ContentModel)
    QML_NAMED_ELEMENT(ContentModel)
    QML_UNCREATABLE("made by the program")
};

struct InterruptedFindingsForQml {
    Q_GADGET
    QML_FOREIGN(InterruptedFindings)
    QML_NAMED_ELEMENT(InterruptedFindings)
    QML_UNCREATABLE("made by the program")
};

struct OpenRouterForQml {
    Q_GADGET
    QML_FOREIGN(OpenRouter)
    QML_NAMED_ELEMENT(OpenRouter)
    QML_UNCREATABLE("made by the program")
};

struct TermsOfUseForQml {
    Q_GADGET
    QML_FOREIGN(TermsOfUse)
    QML_NAMED_ELEMENT(TermsOfUse)
    QML_UNCREATABLE("made by the program")
};

struct SystemWordsForQml {
    Q_GADGET
    QML_FOREIGN(SystemWords)
    QML_NAMED_ELEMENT(SystemWords)
    QML_UNCREATABLE("made by the program")
};

/// What the open Smart Folders are listed in.
struct ItemModelForQml {
    Q_GADGET
    QML_FOREIGN(QAbstractItemModel)
    QML_ANONYMOUS
};
