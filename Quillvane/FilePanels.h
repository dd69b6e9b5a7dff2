#pragma once

#include <QString>
#include <QUrl>

#include <functional>

/// The system's modal panels for choosing files. For the main thread; `chosen` is called later, or
/// never when the user cancels.
class FilePanels {
public:
    using Chosen = std::function<void(const QUrl&)>;

    FilePanels() = default;
    virtual ~FilePanels() = default;
    FilePanels(const FilePanels&) = delete;
    FilePanels& operator=(const FilePanels&) = delete;

    /// One folder, without a way to make a new one.
    virtual void chooseFolder(const QString& title, Chosen chosen) = 0;
    /// One protected item or disk image.
    virtual void chooseItem(const QString& title, Chosen chosen) = 0;
    /// A place for a new text file.
    virtual void chooseTextFileToSave(const QString& title, const QString& proposedName,
                                      Chosen chosen) = 0;
};
