#include "SystemPanels.h"

#include <QApplication>
#include <QPalette>
#include <QStandardPaths>
#include <QWindow>

#include <utility>

namespace {

/// The window's colours (see Brand.qml), for a panel that the system leaves to Qt to draw.
QPalette panelColors() {
    const QColor text(0xE9ECF5);
    const QColor dim(0x9AA1B8);
    QPalette colors(QColor(0x262B3A), QColor(0x171A24));
    for (const auto role : {QPalette::WindowText, QPalette::Text, QPalette::ButtonText})
        colors.setColor(role, text);
    for (const auto role : {QPalette::WindowText, QPalette::Text, QPalette::ButtonText})
        colors.setColor(QPalette::Disabled, role, dim.darker(150));
    colors.setColor(QPalette::Base, QColor(0x0F131C));
    colors.setColor(QPalette::AlternateBase, QColor(0x171A24));
    colors.setColor(QPalette::PlaceholderText, dim);
    colors.setColor(QPalette::ToolTipBase, QColor(0x171A24));
    colors.setColor(QPalette::ToolTipText, text);
    colors.setColor(QPalette::Highlight, QColor(0x2FD98A));
    colors.setColor(QPalette::HighlightedText, QColor(0x0E1017));
    return colors;
}

} // namespace

SystemPanels::SystemPanels() {
    QApplication::setPalette(panelColors()); // lists that drop down have no other
}

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
    open_->setSupportedSchemes({QStringLiteral("file")}); // no places that only look like folders
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
