#pragma once

#include "BusConnection.h"
#include "Quillvane/FileDescriptor.h"

#include <QObject>

/// Makes the system wait for the program (5 seconds, unless configured otherwise) when it is about
/// to be switched off or restarted: a delay inhibitor of the login manager, held from the start.
class ShutdownDelay : public QObject {
    Q_OBJECT

public:
    /// `bus`, the system bus, must outlive the object.
    explicit ShutdownDelay(BusConnection& bus);

    /// After `poweringOff`: the system need not wait any longer.
    void release();

signals:
    void poweringOff();

private:
    enum class Stage { running, poweringOff, released };

    void take();
    void prepare(bool start);

    BusConnection& bus_;
    Stage stage_ = Stage::running;
    FileDescriptor inhibitor_;
};
