#pragma once

#include <QObject>
#include <QString>

/// The words of the window that name the system it runs on; one body per system.
class SystemWords : public QObject {
    Q_OBJECT
    Q_PROPERTY(QString encryption MEMBER encryption CONSTANT)
    Q_PROPERTY(QString technology MEMBER technology CONSTANT)
    Q_PROPERTY(QString showInFileManager MEMBER showInFileManager CONSTANT)
    Q_PROPERTY(QString thisUser MEMBER thisUser CONSTANT)
    Q_PROPERTY(QString yourAccount MEMBER yourAccount CONSTANT)
    Q_PROPERTY(QString anotherComputer MEMBER anotherComputer CONSTANT)
    Q_PROPERTY(QString yourComputer MEMBER yourComputer CONSTANT)

public:
    explicit SystemWords(QObject* parent = nullptr);

    QString encryption;
    QString technology;
    QString showInFileManager;
    QString thisUser;
    QString yourAccount;
    QString anotherComputer;
    QString yourComputer;
};
