#include "Quillvane/SystemWords.h"

SystemWords::SystemWords(QObject* parent)
    : QObject(parent), encryption(QStringLiteral("AES-256 by LUKS2")),
      technology(QStringLiteral("AES-256 · LUKS2 · sparse images")),
      showInFileManager(QStringLiteral("Show in Files")), thisUser(QStringLiteral("this user")),
      yourAccount(QStringLiteral("your user account")),
      anotherComputer(QStringLiteral("another computer")),
      yourComputer(QStringLiteral("your computer")) {}
