#include "Quillvane/PreferenceList.h"

#include <QSettings>

namespace PreferenceList {

std::optional<std::vector<QVariantMap>> read(QSettings& preferences, const QString& key) {
    const QVariant value = preferences.value(key);
    if (value.typeId() != QMetaType::QVariantList && value.typeId() != QMetaType::QStringList)
        return std::nullopt;
    std::vector<QVariantMap> list;
    for (const QVariant& entry : value.toList()) {
        if (entry.typeId() != QMetaType::QVariantMap) return std::nullopt;
        list.push_back(entry.toMap());
    }
    return list;
}

void write(QSettings& preferences, const QString& key, const std::vector<QVariantMap>& list) {
    QVariantList value;
    for (const QVariantMap& dictionary : list) value.append(dictionary);
    preferences.setValue(key, value);
}

} // namespace PreferenceList
