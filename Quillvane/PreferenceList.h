#pragma once

#include <QString>
#include <QVariantMap>

#include <optional>
#include <vector>

class QSettings;

/// A list of dictionaries in the user's preferences, in the form that people find readable on each
/// system: an array of dictionaries in a property list, or numbered keys in an INI file.
namespace PreferenceList {

/// Nothing when there is no list under `key`.
std::optional<std::vector<QVariantMap>> read(QSettings& preferences, const QString& key);
/// Replaces the list; an empty one is written too.
void write(QSettings& preferences, const QString& key, const std::vector<QVariantMap>& list);

} // namespace PreferenceList
