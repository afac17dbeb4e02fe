#include "MetaData.h"

#include <lxclient/Protocol.h>

#include <QJsonArray>
#include <QJsonObject>

#include <algorithm>
#include <cmath>
#include <iterator>

using lxclient::Error;

namespace {

// In the order of Setting::Type.
constexpr struct
{
    const char* name;
    const char* expected;
} types[] = {
    {"int", "a whole number"},
    {"double", "a number"},
    {"string", "a text"},
    {"bool", "true or false"},
};

// A value of the type; invalid if the JSON value is of another.
QVariant typed(const QJsonValue& json, Setting::Type type)
{
    switch (type) {
    case Setting::Type::Int: {
        const double number = json.toDouble(NAN);
        constexpr double exact = 9007199254740992; // 2^53: a double holds all whole numbers to here
        return std::abs(number) <= exact && std::trunc(number) == number
            ? QVariant(static_cast<qlonglong>(number))
            : QVariant();
    }
    case Setting::Type::Double:
        return json.isDouble() ? QVariant(json.toDouble()) : QVariant();
    case Setting::Type::String:
        return json.isString() ? QVariant(json.toString()) : QVariant();
    case Setting::Type::Bool:
        return json.isBool() ? QVariant(json.toBool()) : QVariant();
    }
    return QVariant();
}

// Also of the type, from what the user has written.
QVariant typed(const QString& text, Setting::Type type)
{
    bool ok = false;
    switch (type) {
    case Setting::Type::Int: {
        const qlonglong number = text.toLongLong(&ok);
        return ok ? QVariant(number) : QVariant();
    }
    case Setting::Type::Double: {
        const double number = text.toDouble(&ok);
        return ok && std::isfinite(number) ? QVariant(number) : QVariant();
    }
    case Setting::Type::String:
        return text;
    case Setting::Type::Bool:
        if (text != QLatin1String("true") && text != QLatin1String("false"))
            return QVariant();
        return text == QLatin1String("true");
    }
    return QVariant();
}

Error readLimit(const QJsonValue& json, Setting::Type type, QVariant& limit)
{
    if (json.isUndefined())
        return {};
    if (type == Setting::Type::Int || type == Setting::Type::Double)
        limit = typed(json, type);
    return limit.isValid() ? Error() : Error(QStringLiteral("is not a number of the type"));
}

} // namespace

Error Setting::read(const QJsonObject& declaration, Setting& setting)
{
    static const QStringList known{QStringLiteral("name"),    QStringLiteral("type"),
                                   QStringLiteral("default"), QStringLiteral("min"),
                                   QStringLiteral("max"),     QStringLiteral("description")};
    for (const QString& key : declaration.keys()) {
        if (!known.contains(key))
            return Error(QStringLiteral("\"%1\" is none of %2").arg(key, known.join(", ")));
    }

    Setting read;
    read.name = declaration.value(QStringLiteral("name")).toString();
    if (read.name.isEmpty() || read.name.contains(QLatin1Char('=')))
        return Error(QStringLiteral("has no \"name\", or one with a ="));
    if (lxclient::setting::ofTheHost().contains(read.name))
        return Error(QStringLiteral("the name belongs to a setting of the host"));

    const QString typeName = declaration.value(QStringLiteral("type")).toString();
    const auto type = std::find_if(std::begin(types), std::end(types), [&](const auto& candidate) {
        return typeName == QLatin1String(candidate.name);
    });
    if (type == std::end(types))
        return Error(QStringLiteral("\"type\" is none of int, double, string, bool"));
    read.type = static_cast<Type>(type - std::begin(types));

    if (const Error error =
            readLimit(declaration.value(QStringLiteral("min")), read.type, read.min))
        return error.about(QStringLiteral("\"min\""));
    if (const Error error =
            readLimit(declaration.value(QStringLiteral("max")), read.type, read.max))
        return error.about(QStringLiteral("\"max\""));
    read.default_value = typed(declaration.value(QStringLiteral("default")), read.type);
    if (const Error error = read.check(read.default_value))
        return error.about(QStringLiteral("\"default\""));
    read.description = declaration.value(QStringLiteral("description")).toString();
    if (read.description.isEmpty())
        return Error(QStringLiteral("has no \"description\""));
    setting = read;
    return {};
}

Error Setting::parse(const QString& text, QVariant& value) const
{
    const QVariant parsed = typed(text, type);
    if (const Error error = check(parsed))
        return error;
    value = parsed;
    return {};
}

QString Setting::typeName() const
{
    return QLatin1String(types[static_cast<int>(type)].name);
}

QString Setting::range() const
{
    QStringList words;
    if (min.isValid())
        words << QStringLiteral("from ") + min.toString();
    if (max.isValid())
        words << QStringLiteral("to ") + max.toString();
    return words.join(QLatin1Char(' '));
}

// Whether it is of the type (an invalid value is not) and within the range.
Error Setting::check(const QVariant& value) const
{
    const double number = value.toDouble();
    const bool fits = value.isValid() && (!min.isValid() || number >= min.toDouble())
        && (!max.isValid() || number <= max.toDouble());
    if (fits)
        return {};
    QStringList words(QLatin1String(types[static_cast<int>(type)].expected));
    words << range() << QStringLiteral("is expected");
    words.removeAll(QString());
    return Error(words.join(QLatin1Char(' ')));
}

Error MetaData::read(const QJsonObject& json, MetaData& metaData)
{
    MetaData read;
    read.id = json.value(QStringLiteral("id")).toString();
    read.instances = json.value(QStringLiteral("instances")).toString();
    read.needs = json.value(QStringLiteral("needs")).toString();
    if (read.id.isEmpty() || read.id.contains(QLatin1Char('#')))
        return Error(QStringLiteral("its metadata names no \"id\", or one with a #"));
    if (!read.needs.isEmpty() && !lxclient::setting::ofTheHost().contains(read.needs)) {
        return Error(
            QStringLiteral("\"needs\" in its metadata names %1, which is no setting of the "
                           "host: it would never be loaded")
                .arg(read.needs));
    }
    read.unless = json.value(QStringLiteral("unless")).toString();
    if (!read.unless.isEmpty() && !lxclient::setting::ofTheHost().contains(read.unless)) {
        return Error(QStringLiteral("\"unless\" in its metadata names %1, which is no setting of "
                                    "the host")
                         .arg(read.unless));
    }
    const QJsonValue payloads = json.value(QStringLiteral("payloads"));
    if (!payloads.isUndefined() && !payloads.isBool())
        return Error(QStringLiteral("\"payloads\" in its metadata is neither true nor false"));
    read.payloads = payloads.toBool();
    const QJsonValue settings = json.value(QStringLiteral("settings"));
    if (!settings.isUndefined() && !settings.isArray())
        return Error(QStringLiteral("\"settings\" in its metadata is no list"));
    for (const QJsonValue& declaration : settings.toArray()) {
        Setting setting;
        if (const Error error = Setting::read(declaration.toObject(), setting))
            return error.about(
                QStringLiteral("setting %1 of its metadata").arg(read.settings.size() + 1));
        for (const Setting& other : qAsConst(read.settings)) {
            if (other.name == setting.name)
                return Error(QStringLiteral("its metadata declares %1 twice").arg(setting.name));
        }
        read.settings.append(setting);
    }
    metaData = read;
    return {};
}
