#include "StoreFile.h"

#include <QDateTime>
#include <QSqlError>
#include <QUuid>

using lxclient::Error;

namespace lxlink {

namespace {

Error errorOf(const QSqlError& error)
{
    enum { Busy = 5, Locked = 6, Full = 13, NotADatabase = 26 }; // SQLite's
    switch (error.nativeErrorCode().toInt() & 0xff) {
    case Busy:
    case Locked:
        return Error(QStringLiteral("is locked by another program"));
    case Full:
        return Error(QStringLiteral("cannot be written: the disk is full"));
    case NotADatabase:
        return Error(QStringLiteral("is no store of a linked client"));
    default:
        return Error(error.databaseText().isEmpty() ? error.text() : error.databaseText());
    }
}

} // namespace

StoreFile::StoreFile()
    : m_database(
        QSqlDatabase::addDatabase(QStringLiteral("QSQLITE"), QUuid::createUuid().toString()))
{ }

StoreFile::~StoreFile()
{
    const QString connection = m_database.connectionName();
    m_database.close();
    m_database = QSqlDatabase(); // nobody may hold a connection when it is removed
    QSqlDatabase::removeDatabase(connection);
}

Error StoreFile::open(const QString& fileName, const QString& kind, const QStringList& statements)
{
    m_file_name = fileName;
    if (!m_database.isValid()) {
        return Error(QStringLiteral("the SQLite driver of the framework's SQL module is missing"))
            .about(fileName);
    }
    m_database.setDatabaseName(fileName);
    m_database.setConnectOptions(QStringLiteral("QSQLITE_BUSY_TIMEOUT=2000"));
    if (!m_database.open())
        return errorOf(m_database.lastError()).about(fileName);
    // the mode first: the file is then locked by the first access, for as long as it is open
    for (const char* pragma : {"PRAGMA locking_mode = EXCLUSIVE", "PRAGMA journal_mode = WAL",
                               "PRAGMA synchronous = FULL"}) {
        if (const Error error = run(QLatin1String(pragma)))
            return error.about(fileName);
    }
    return transact([&] {
        QSqlQuery tables = query();
        if (const Error error = run(tables, QStringLiteral("SELECT count(*) FROM sqlite_master")))
            return error;
        const bool isNew = tables.next() && tables.value(0).toInt() == 0;
        if (isNew) {
            Error error = run(QStringLiteral(
                "CREATE TABLE store (name TEXT PRIMARY KEY, value TEXT NOT NULL) WITHOUT ROWID"));
            for (const QString& statement : statements) {
                if (!error)
                    error = run(statement);
            }
            if (!error)
                error = setText(QStringLiteral("kind"), kind);
            if (!error) {
                error = setNumber(QStringLiteral("epoch"),
                                  static_cast<quint64>(QDateTime::currentMSecsSinceEpoch()));
            }
            if (error)
                return error;
        }
        QString found;
        const Error error = text(QStringLiteral("kind"), found);
        if (error || found != kind)
            return Error(QStringLiteral("is no store of %1").arg(kind));
        return number(QStringLiteral("epoch"), m_epoch);
    });
}

Error StoreFile::transact(const std::function<Error()>& work)
{
    Error error = run(QStringLiteral("BEGIN IMMEDIATE"));
    if (error)
        return error.about(m_file_name);
    error = work();
    if (!error)
        error = run(QStringLiteral("COMMIT"));
    if (error) // a full disk may have ended it already
        static_cast<void>(run(QStringLiteral("ROLLBACK")));
    return error.about(m_file_name);
}

Error StoreFile::run(QSqlQuery& query, const QString& statement, const QVariantList& values)
{
    query.setForwardOnly(true);
    if (!query.prepare(statement))
        return errorOf(query.lastError());
    for (const QVariant& value : values) {
        const bool isNullText = value.type() == QVariant::String && value.isNull();
        query.addBindValue(isNullText ? QVariant(QLatin1String("")) : value); // not NULL
    }
    return query.exec() ? Error() : errorOf(query.lastError());
}

Error StoreFile::run(const QString& statement, const QVariantList& values)
{
    QSqlQuery own = query();
    return run(own, statement, values);
}

Error StoreFile::number(const QString& name, quint64& value)
{
    QString found;
    const Error error = text(name, found);
    if (!error)
        value = found.toULongLong();
    return error;
}

Error StoreFile::setNumber(const QString& name, quint64 value)
{
    return setText(name, QString::number(value));
}

Error StoreFile::cursor(Cursor& cursor)
{
    if (const Error error = number(QStringLiteral("cursor"), cursor.sequence))
        return error;
    return text(QStringLiteral("stream"), cursor.stream);
}

Error StoreFile::setCursor(const Cursor& cursor)
{
    if (const Error error = setNumber(QStringLiteral("cursor"), cursor.sequence))
        return error;
    return setText(QStringLiteral("stream"), cursor.stream);
}

Error StoreFile::text(const QString& name, QString& value)
{
    QSqlQuery own = query();
    if (const Error error =
            run(own, QStringLiteral("SELECT value FROM store WHERE name = ?"), {name}))
        return error;
    value = own.next() ? own.value(0).toString() : QString();
    return {};
}

Error StoreFile::setText(const QString& name, const QString& value)
{
    return run(QStringLiteral("INSERT OR REPLACE INTO store (name, value) VALUES (?, ?)"),
               {name, value});
}

} // namespace lxlink
