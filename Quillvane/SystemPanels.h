#pragma once

#include "FilePanels.h"

#include <QFileDialog>
#include <QPointer>

class QWindow;

/// The desktop's own file panels, or Qt's where it has none. One at a time: a request while one is
/// open is dropped. Needs a QApplication. For the main thread.
class SystemPanels : public FilePanels {
public:
    /// Gives what Qt draws itself the window's colours, in the whole program.
    SystemPanels();
    ~SystemPanels() override;

    /// The window that panels stand before.
    void setWindow(QWindow* window) { window_ = window; }

    void chooseFolder(const QString& title, Chosen chosen) override;
    void chooseItem(const QString& title, Chosen chosen) override;
    void chooseTextFileToSave(const QString& title, const QString& proposedName,
                              Chosen chosen) override;

private:
    /// A new panel, or null when one is open.
    QFileDialog* make(const QString& title);
    void show(QFileDialog& panel, Chosen chosen);

    QPointer<QWindow> window_;
    QPointer<QFileDialog> open_;
};
