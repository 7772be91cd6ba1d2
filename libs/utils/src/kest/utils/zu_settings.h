#pragma once

#include <QMap>
#include <QString>
#include <QStringList>
#include <QVariant>

/**
 * A settings store: keys with "/" as the group separator ("MongoDb/user"), values as variants.
 * Filled from an INI settings file, then overridden by the command line; a missing key reads
 * as a null value.
 */
class ZuSettings
{
public:
    /**
     * Reads every key of an INI settings file. Values are kept as written up to the end of the
     * line (";" and "," included); comment lines start with ";" or "#". False when the file
     * cannot be read.
     */
    bool loadIniFile(const QString& path);

    /** Sets a key, replacing what the file gave (command-line overrides). */
    void setValue(const QString& key, const QVariant& value);

    /** The value of the key, or `defaultValue` (null unless given) when it is not set. */
    QVariant value(const QString& key, const QVariant& defaultValue = QVariant()) const;

    bool contains(const QString& key) const;
    QStringList allKeys() const;

private:
    QMap<QString, QVariant> m_values;
};
