// Starts as the application does, without a window. Says on standard output what becomes of the
// start and of the items, a line each, and quits when "quit" comes on standard input; the rest of
// its end lasts until standard input ends. With QUIT_WHEN_ACTIVATED in the environment it quits in
// the middle of the first activation. Exit status: 0, 1 when the running instance does not answer,
// 2 for a wrong command line.

#include "Quillvane/AppDelegate.h"
#include "Quillvane/ApplicationArguments.h"
#include "Quillvane/ApplicationInstance.h"
#include "Quillvane/OpenRouter.h"

#include <QGuiApplication>
#include <QSocketNotifier>

#include <cstdio>
#include <filesystem>
#include <unistd.h>

namespace {

void say(const QByteArray& line) {
    std::printf("%s\n", line.constData());
    std::fflush(stdout);
}

void complain(const std::exception& error) {
    std::fprintf(stderr, "%s\n", error.what());
}

QByteArray text(const QVariantMap& platformData, const char* key) {
    return platformData.value(key, "-").toString().toUtf8();
}

/// Returns when there is nothing to read any more.
void awaitEndOfInput() {
    char byte = 0;
    while (read(STDIN_FILENO, &byte, 1) > 0) continue;
}

int run(const ApplicationArguments& asked, const QVariantMap& platformData) {
    AppDelegate delegate;
    ApplicationInstance instance(std::chrono::seconds(2));
    OpenRouter& router = OpenRouter::shared();
    QObject::connect(&instance, &ApplicationInstance::opened, &delegate, &AppDelegate::open);
    QObject::connect(&instance, &ApplicationInstance::activated, [](const QVariantMap& data) {
        say("activated " + text(data, "desktop-startup-id") + " " + text(data, "activation-token"));
        if (qEnvironmentVariableIsSet("QUIT_WHEN_ACTIVATED")) QCoreApplication::quit();
    });
    QObject::connect(&router, &OpenRouter::pendingContainerChanged,
                     [&router] { say("pending " + router.pendingContainer().toEncoded()); });
    QObject::connect(
        &instance, &ApplicationInstance::protectionAsked, &router,
        [](const QUrl& folder) { say("protect " + folder.toEncoded()); }, Qt::QueuedConnection);
    QSocketNotifier input(STDIN_FILENO, QSocketNotifier::Read);
    QObject::connect(&input, &QSocketNotifier::activated, [&input] {
        input.setEnabled(false);
        QCoreApplication::quit();
    });

    delegate.applicationDidFinishLaunching();
    if (instance.start(asked, platformData) == ApplicationInstance::Role::handedOver) {
        say("handed over");
        return 0;
    }
    say("running");
    QCoreApplication::exec();
    say("ending");
    awaitEndOfInput();
    return 0;
}

} // namespace

int main(int argc, char* argv[]) {
    const QVariantMap platformData = ApplicationInstance::platformDataFromEnvironment();
    qputenv("QT_QPA_PLATFORM", "offscreen");
    const QGuiApplication application(argc, argv);
    try {
        std::error_code ignored;
        return run(ApplicationArguments::parse(std::span<const char* const>(argv, argc).subspan(1),
                                               std::filesystem::current_path(ignored)),
                   platformData);
    } catch (const ApplicationInstanceError& error) {
        complain(error);
        return 1;
    } catch (const WrongUsageError& error) {
        complain(error);
        return 2;
    }
}
