#include "SystemPanels.h"

#include <QStandardPaths>
#include <QWindow>

#include <utility>

SystemPanels::~SystemPanels() {
    delete open_;
}

void SystemPanels::chooseFolder(const QString& title, Chosen chosen) {
    QFileDialog* const panel = make(title);
    if (panel == nullptr) return;
    panel->setFileMode(QFileDialog::Directory);
    // Read-only: no button for a new folder.
    panel->setOptions(QFileDialog::ShowDirsOnly | QFileDialog::ReadOnly);
    show(*panel, std::move(chosen));
}

void SystemPanels::chooseItem(const QString& title, Chosen chosen) {
    QFileDialog* const panel = make(title);
    if (panel == nullptr) return;
    panel->setFileMode(QFileDialog::ExistingFile);
    panel->setOptions(QFileDialog::ReadOnly);
    panel->setNameFilter(
        QStringLiteral("Protected items (*.quillvane *.QUILLVANE *.sparseimage *.dmg)"));
    show(*panel, std::move(chosen));
}

void SystemPanels::chooseTextFileToSave(const QString& title, const QString& proposedName,
                                        Chosen chosen) {
    QFileDialog* const panel = make(title);
    if (panel == nullptr) return;
    panel->setAcceptMode(QFileDialog::AcceptSave);
    panel->setNameFilter(QStringLiteral("Plain text (*.txt)"));
    panel->setDefaultSuffix(QStringLiteral("txt"));
    panel->setDirectory(QStandardPaths::writableLocation(QStandardPaths::DocumentsLocation));
    panel->selectFile(proposedName);
    show(*panel, std::move(chosen));
}

QFileDialog* SystemPanels::make(const QString& title) {
    if (open_) return nullptr;
    open_ = new QFileDialog(nullptr, title, QDir::homePath());
    return open_;
}

void SystemPanels::show(QFileDialog& panel, Chosen chosen) {
    // Not `urlSelected`: Qt's own panel does not send it for folders.
    QObject::connect(&panel, &QFileDialog::accepted, &panel, [&panel, chosen = std::move(chosen)] {
        const QList<QUrl> urls = panel.selectedUrls();
        if (!urls.isEmpty()) chosen(urls.first());
    });
    QObject::connect(&panel, &QFileDialog::finished, &panel, &QObject::deleteLater);
    panel.winId(); // makes its window, which is then put before ours
    panel.setWindowModality(Qt::ApplicationModal);
    if (window_ && panel.windowHandle() != nullptr)
        panel.windowHandle()->setTransientParent(window_);
    panel.show(); // not open(), which would make it modal to its parent alone
}
