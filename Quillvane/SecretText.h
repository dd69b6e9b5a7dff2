#pragma once

#include "Secret.h"

#include <QString>

/// Secrets on their way through the window, whose toolkit keeps text in strings of its own. They
/// are wiped as far as we can reach them: the copies that the toolkit makes we cannot.

/// The text's UTF-8 bytes.
Secret secretOf(const QString& text);
QString textOf(const Secret& secret);
/// Empties the text and overwrites its characters, also in strings that share them.
void wipeText(QString& text);
