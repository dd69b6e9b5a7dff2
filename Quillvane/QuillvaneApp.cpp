#include "Quillvane/Accessibility.h"
#include "Quillvane/AppDelegate.h"
#include "Quillvane/ApplicationArguments.h"
#include "Quillvane/ApplicationInstance.h"
#include "Quillvane/ContentModel.h"
#include "Quillvane/InterruptedFindings.h"
#include "Quillvane/ItemDetail.h"
#include "Quillvane/OpenRouter.h"
#include "Quillvane/Platform.h"
#include "Quillvane/Preferences.h"
#include "Quillvane/SmartFolderManager.h"
#include "Quillvane/SymbolProvider.h"
#include "Quillvane/SystemClock.h"
#include "Quillvane/SystemEvents.h"
#include "Quillvane/SystemPanels.h"
#include "Quillvane/SystemWords.h"
#include "Quillvane/TerminationSignals.h"
#include "Quillvane/TermsOfUse.h"
#include "Quillvane/ThreadTasks.h"
#include "Quillvane/VaultViewModel.h"

#include <QApplication>
#include <QQmlApplicationEngine>
#include <QQuickWindow>

#include <cstdio>
#include <span>

// Made by the build: the types that the window's files know. A static library is asked in person.
void qml_register_types_Quillvane();

namespace {

enum ExitStatus : int { done = 0, failed = 1, wrongUsage = 2 };

void complain(const std::exception& error) {
    static_cast<void>(std::fprintf(stderr, "%s\n", error.what()));
}

void bringToFront(const QQmlApplicationEngine& engine) {
    for (QObject* const root : engine.rootObjects()) {
        if (auto* const window = qobject_cast<QQuickWindow*>(root)) {
            window->show();
            window->raise();
            window->requestActivate();
        }
    }
}

/// The window and all that lives as long as it.
int runWindow(const QUrl& mainFile, ApplicationInstance& instance) {
    const auto preferences = Preferences::open();
    const auto events = SystemEvents::ofThisSystem();
    SmartFolderStore store(&Preferences::open, Preferences::lockDirectory());
    SystemClock clock;
    ThreadTasks tasks;
    ThreadTasks looking; // no closing of a folder waits for it
    SystemPanels panels;
    SystemWords words;
    TermsOfUse terms(*preferences);
    // These two stop what they do before the manager waits for it.
    VaultViewModel viewModel(tasks, panels);
    InterruptedFindings interrupted(looking, tasks);
    SmartFolderManager smart(*events, tasks, clock, store);
    ContentModel content(viewModel, smart, interrupted, OpenRouter::shared(), panels, tasks);
    QObject::connect(events.get(), &SystemEvents::volumeUnmounted, &viewModel,
                     &VaultViewModel::volumeUnmounted);
    ItemDetail::setTasks(looking);

    qml_register_types_Quillvane();
    QQmlApplicationEngine engine;
    engine.addImportPath(QStringLiteral("qrc:/qt/qml"));
    engine.addImageProvider(QStringLiteral("symbol"), new SymbolProvider);
    engine.setInitialProperties({{"vm", QVariant::fromValue(&viewModel)},
                                 {"smart", QVariant::fromValue(&smart)},
                                 {"openRouter", QVariant::fromValue(&OpenRouter::shared())},
                                 {"content", QVariant::fromValue(&content)},
                                 {"terms", QVariant::fromValue(&terms)},
                                 {"words", QVariant::fromValue(&words)}});
    engine.load(mainFile);
    if (engine.rootObjects().isEmpty()) return failed;
    panels.setWindow(qobject_cast<QWindow*>(engine.rootObjects().first()));
    QObject::connect(&instance, &ApplicationInstance::activated, &engine,
                     [&engine] { bringToFront(engine); });
    QObject::connect(&OpenRouter::shared(), &OpenRouter::pendingContainerChanged, &engine,
                     [&engine] { bringToFront(engine); });
    return QApplication::exec();
}

int run(std::span<const char* const> words, const QVariantMap& platformData) {
    AppDelegate delegate;
    ApplicationInstance instance;
    QObject::connect(&instance, &ApplicationInstance::opened, &delegate, &AppDelegate::open);
    QObject::connect(&instance, &ApplicationInstance::protectionAsked, &OpenRouter::shared(),
                     &OpenRouter::setPendingFolder);
    delegate.applicationDidFinishLaunching();
    std::error_code unknown;
    const auto asked = ApplicationArguments::parse(words, std::filesystem::current_path(unknown));
    if (instance.start(asked, platformData) == ApplicationInstance::Role::handedOver) return done;

    const TerminationSignals termination;
    QObject::connect(&termination, &TerminationSignals::received, [] { QCoreApplication::quit(); });
    return runWindow(QUrl(QStringLiteral("qrc:/qt/qml/Quillvane/QuillvaneWindow.qml")), instance);
}

} // namespace

int main(int argc, char* argv[]) {
    Platform::disableCoreDumps();
    const auto words = std::span<const char* const>(argv, argc).subspan(argc > 0 ? 1 : 0);
    if (const auto text = ApplicationArguments::textToPrint(words)) {
        return std::puts(text->c_str()) < 0 || std::fflush(stdout) != 0 ? failed : done;
    }
    const QVariantMap platformData = ApplicationInstance::platformDataFromEnvironment();
    // The interface is flat: drawing it needs no graphics card, which would cost start and memory.
    if (!qEnvironmentVariableIsSet("QT_QUICK_BACKEND"))
        QQuickWindow::setGraphicsApi(QSGRendererInterface::Software);
    const QApplication application(argc, argv);
    Accessibility::install();
    QApplication::setApplicationDisplayName(QStringLiteral("Quillvane"));
    QApplication::setDesktopFileName(QStringLiteral("org.quillvane.Quillvane"));
    try {
        // Without Qt's own options, which it has taken out of them.
        return run(std::span<const char* const>(argv, argc).subspan(argc > 0 ? 1 : 0),
                   platformData);
    } catch (const WrongUsageError& error) {
        complain(error);
        return wrongUsage;
    } catch (const std::exception& error) {
        complain(error);
        return failed;
    }
}
