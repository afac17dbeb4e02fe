// MetaData: what a plugin says of itself in the JSON file that is compiled into its library.
#ifndef LXCLIENT_METADATA_H
#define LXCLIENT_METADATA_H

#include <lxclient/Error.h>

#include <QString>
#include <QVariant>
#include <QVector>

class QJsonObject;

// The declaration of one setting.
struct Setting
{
    enum class Type { Int, Double, String, Bool };

    QString name;
    Type type = Type::Int;
    // of the type, as are all values: qlonglong, double, QString, bool
    QVariant default_value;
    QVariant min; // invalid: no limit
    QVariant max;
    QString description; // a sentence

    // Checks the declaration, its default included.
    static lxclient::Error read(const QJsonObject& declaration, Setting& setting);

    // The value that the user has written.
    lxclient::Error parse(const QString& text, QVariant& value) const;

    // In words: "int", "from 1 to 10" (empty: any).
    QString typeName() const;
    QString range() const;

private:
    lxclient::Error check(const QVariant& value) const;
};

// All of it. See <lxclient/Plugin.h>.
struct MetaData
{
    QString id;
    QString instances; // the setting that says how many objects there are; empty: one
    QString needs;     // the setting without which the library is not loaded; empty: always loaded
    QString unless;    // the setting with which it is not loaded; empty: none
    bool payloads = false; // it has payload types of its own
    QVector<Setting> settings;

    // Whether the two are never loaded together.
    bool excludes(const MetaData& other) const
    {
        return (!needs.isEmpty() && needs == other.unless)
            || (!other.needs.isEmpty() && other.needs == unless);
    }

    static lxclient::Error read(const QJsonObject& json, MetaData& metaData);
};

#endif
