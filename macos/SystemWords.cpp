#include "Quillvane/SystemWords.h"

SystemWords::SystemWords(QObject* parent)
    : QObject(parent), encryption(QStringLiteral("AES-256 by macOS")),
      technology(QStringLiteral("AES-256 · macOS hdiutil · sparse images")),
      showInFileManager(QStringLiteral("Show in Finder")),
      thisUser(QStringLiteral("this Mac user")), yourAccount(QStringLiteral("your macOS user")),
      anotherComputer(QStringLiteral("another Mac")), yourComputer(QStringLiteral("your Mac")) {}
