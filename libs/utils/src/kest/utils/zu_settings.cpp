#include "zu_settings.h"

#include <QFileInfo>
#include <QSettings>

bool ZuSettings::loadIniFile(const QString& path)
{
    if (!QFileInfo(path).isReadable())
        return false;
    QSettings file(path, QSettings::IniFormat);
    if (file.status() != QSettings::NoError)
        return false;
    for (const auto& key : file.allKeys()) {
        // QSettings files keys of the top level under "General"; ours are top-level keys.
        QString name = key;
        if (name.startsWith(QLatin1String("General/")))
            name = name.mid(8);
        QVariant value = file.value(key);
        // A value with commas comes back as a list; settings values are plain text.
        if (value.userType() == QMetaType::QStringList)
            value = value.toStringList().join(QLatin1Char(','));
        m_values.insert(name, value);
    }
    return true;
}

void ZuSettings::setValue(const QString& key, const QVariant& value)
{
    m_values.insert(key, value);
}

QVariant ZuSettings::value(const QString& key, const QVariant& defaultValue) const
{
    return m_values.value(key, defaultValue);
}

bool ZuSettings::contains(const QString& key) const
{
    return m_values.contains(key);
}

QStringList ZuSettings::allKeys() const
{
    return m_values.keys();
}
