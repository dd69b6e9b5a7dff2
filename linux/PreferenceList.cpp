#include "Quillvane/PreferenceList.h"

#include <QSettings>

#include <algorithm>

namespace PreferenceList {

std::optional<std::vector<QVariantMap>> read(QSettings& preferences, const QString& key) {
    const QVariant size = preferences.value(key + "/size");
    bool isNumber = false;
    int count = size.toInt(&isNumber);
    if (!isNumber || count < 0) return std::nullopt;
    preferences.beginGroup(key);
    // Whatever a damaged file claims, there are not more of them than groups.
    count = std::min(count, static_cast<int>(preferences.childGroups().size()));
    preferences.endGroup();

    std::vector<QVariantMap> list;
    preferences.beginReadArray(key);
    for (int index = 0; index < count; ++index) {
        preferences.setArrayIndex(index);
        QVariantMap& dictionary = list.emplace_back();
        for (const QString& name : preferences.childKeys())
            dictionary[name] = preferences.value(name);
    }
    preferences.endArray();
    return list;
}

void write(QSettings& preferences, const QString& key, const std::vector<QVariantMap>& list) {
    preferences.remove(key);
    preferences.beginWriteArray(key, static_cast<int>(list.size()));
    int index = 0;
    for (const QVariantMap& dictionary : list) {
        preferences.setArrayIndex(index++);
        for (auto entry = dictionary.begin(); entry != dictionary.end(); ++entry)
            preferences.setValue(entry.key(), entry.value());
    }
    preferences.endArray();
}

} // namespace PreferenceList
