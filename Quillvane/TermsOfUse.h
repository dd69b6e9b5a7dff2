#pragma once

#include <QObject>
#include <QSettings>
#include <QUrl>

/// Whether the user has accepted the present version of the terms, which is kept in the user's
/// preferences. For the main thread.
class TermsOfUse : public QObject {
    Q_OBJECT
    Q_PROPERTY(bool accepted READ accepted NOTIFY acceptedChanged)
    Q_PROPERTY(QUrl address READ address CONSTANT)

public:
    /// `preferences` must outlive the object.
    explicit TermsOfUse(QSettings& preferences, QObject* parent = nullptr);

    bool accepted() const;
    /// The full text on the maker's site.
    QUrl address() const;
    Q_INVOKABLE void accept();

signals:
    void acceptedChanged();

private:
    QSettings& preferences_;
};
