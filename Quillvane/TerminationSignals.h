#pragma once

#include <QObject>
#include <QSocketNotifier>

#include <csignal>
#include <vector>

/// The signals that ask the program to end (SIGTERM, SIGINT, SIGHUP, SIGQUIT), as a Qt signal on
/// the main thread. As long as the object lives they do not end the program by themselves. Those
/// that the caller had ignored (nohup) stay ignored.
///
/// One at a time: a second one throws `std::logic_error`. The constructor throws
/// `std::system_error` when there are no descriptors left.
class TerminationSignals : public QObject {
    Q_OBJECT

public:
    explicit TerminationSignals(QObject* parent = nullptr);
    /// The signals do again what they did before.
    ~TerminationSignals() override;
    TerminationSignals(const TerminationSignals&) = delete;
    TerminationSignals& operator=(const TerminationSignals&) = delete;

signals:
    /// Once for each that was sent, in order, but for those that the system merges.
    void received(int signalNumber);

private:
    struct Former {
        int signal;
        struct sigaction action;
    };

    void takeOver();
    void readOne();

    std::vector<Former> former_;
    QSocketNotifier arrived_;
};
