#include "zu_settings.h"

#include <QFile>

namespace {

/**
 * Reads an INI file as operators write it. QSettings' INI reader takes an unquoted ";" for the
 * start of a comment and a "," for a list separator, which cuts "instances=a:1;b:2" to "a:1".
 * Here a value is everything after the first "=" up to the end of the line, surrounding blanks
 * trimmed, exactly as the same value on the command line. The rest is INI as usual: "[group]"
 * sections ("[General]" is the top level), whole-line comments starting with ";" or "#",
 * "\" or "/" as the group separator inside a key, and the last of repeated keys wins.
 */
void readIni(QIODevice& device, QMap<QString, QVariant>& map)
{
    QString group;
    while (!device.atEnd()) {
        const QString line = QString::fromUtf8(device.readLine()).trimmed();
        if (line.isEmpty() || line.startsWith(QLatin1Char(';')) ||
            line.startsWith(QLatin1Char('#'))) {
            continue;
        }
        if (line.startsWith(QLatin1Char('[')) && line.endsWith(QLatin1Char(']'))) {
            group = line.mid(1, line.size() - 2).trimmed();
            group.replace(QLatin1Char('\\'), QLatin1Char('/'));
            if (group.compare(QLatin1String("General"), Qt::CaseInsensitive) == 0)
                group.clear();
            continue;
        }
        const int equals = line.indexOf(QLatin1Char('='));
        if (equals <= 0)
            continue;  // Not a key: QSettings skips such lines too.
        QString key = line.left(equals).trimmed();
        key.replace(QLatin1Char('\\'), QLatin1Char('/'));
        if (key.isEmpty())
            continue;
        map.insert(group.isEmpty() ? key : group + QLatin1Char('/') + key,
                   line.mid(equals + 1).trimmed());
    }
}

}  // namespace

bool ZuSettings::loadIniFile(const QString& path)
{
    // Read directly rather than through QSettings, whose process-wide cache of parsed files can
    // miss a rewrite of the same size within the same second.
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return false;
    readIni(file, m_values);
    return file.error() == QFileDevice::NoError;
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
