#include "JournalFile.h"

#include <QDateTime>
#include <QSqlError>
#include <QSqlQuery>
#include <QUuid>

namespace {

const char* const schema[] = {
    "CREATE TABLE sessions (id INTEGER PRIMARY KEY, started TEXT NOT NULL)",
    "CREATE TABLE executions (id INTEGER PRIMARY KEY, session INTEGER NOT NULL REFERENCES sessions,"
    " trace_id TEXT NOT NULL, order_id INTEGER NOT NULL, symbol TEXT NOT NULL,"
    " quantity INTEGER NOT NULL, price TEXT NOT NULL, quoted TEXT NOT NULL,"
    " UNIQUE (session, order_id))",
    "CREATE TABLE positions (session INTEGER NOT NULL REFERENCES sessions, symbol TEXT NOT NULL,"
    " quantity INTEGER NOT NULL, trace_id TEXT NOT NULL, PRIMARY KEY (session, symbol))",
};

QString utc(const QDateTime& time)
{
    return time.toUTC().toString(Qt::ISODateWithMs);
}

// The database's own words; the framework adds what it was doing.
QString text(const QSqlError& error)
{
    return error.databaseText().isEmpty() ? error.text() : error.databaseText();
}

QString run(QSqlQuery& query)
{
    return query.exec() ? QString() : text(query.lastError());
}

// One number that the database answers; -1 and `error` set if it does not.
int number(const QSqlDatabase& database, const QString& question, QString& error)
{
    QSqlQuery query(database);
    if (!query.exec(question) || !query.next()) {
        error = text(query.lastError());
        return -1;
    }
    return query.value(0).toInt();
}

} // namespace

JournalFile::JournalFile()
    : m_database(
        QSqlDatabase::addDatabase(QStringLiteral("QSQLITE"), QUuid::createUuid().toString()))
{ }

JournalFile::~JournalFile()
{
    const QString connection = m_database.connectionName();
    m_database = QSqlDatabase(); // nobody may hold a connection when it is removed
    QSqlDatabase::removeDatabase(connection);
}

QString JournalFile::open(const QString& fileName)
{
    m_file_name = fileName;
    if (!m_database.isValid())
        return named(QStringLiteral("the SQLite driver of the framework's SQL module is missing"));
    m_database.setDatabaseName(fileName);
    if (!m_database.open())
        return named(text(m_database.lastError()));
    if (!m_database.transaction())
        return named(text(m_database.lastError()));
    QString error = prepareSchema();
    if (error.isEmpty()) {
        QSqlQuery query(m_database);
        query.prepare(QStringLiteral("INSERT INTO sessions (started) VALUES (?)"));
        query.addBindValue(utc(QDateTime::currentDateTimeUtc()));
        error = run(query);
        m_session = query.lastInsertId().toLongLong();
    }
    if (error.isEmpty() && m_database.commit())
        return QString();
    return rollback(error);
}

QString JournalFile::write(const JournalBatch& batch)
{
    if (!m_database.transaction())
        return named(text(m_database.lastError()));
    const QString error = insert(batch);
    if (error.isEmpty() && m_database.commit())
        return QString();
    return rollback(error);
}

quint64 JournalFile::countExecutions()
{
    QSqlQuery query(m_database);
    query.prepare(QStringLiteral("SELECT count(*) FROM executions WHERE session = ?"));
    query.addBindValue(m_session);
    return query.exec() && query.next() ? query.value(0).toULongLong() : 0;
}

// In the transaction of open: a process that dies meanwhile leaves an empty file, not half a
// schema.
QString JournalFile::prepareSchema()
{
    QString error;
    const int mark = number(m_database, QStringLiteral("PRAGMA application_id"), error);
    const int version = number(m_database, QStringLiteral("PRAGMA user_version"), error);
    const int tables =
        number(m_database, QStringLiteral("SELECT count(*) FROM sqlite_master"), error);
    if (!error.isEmpty())
        return QStringLiteral("is no journal (%1)").arg(error);
    if (mark == ApplicationId && version == SchemaVersion)
        return QString();
    if (mark == ApplicationId) {
        return QStringLiteral("is a journal of version %1, this program writes version %2")
            .arg(version)
            .arg(SchemaVersion);
    }
    if (mark != 0 || version != 0 || tables != 0)
        return QStringLiteral("is no journal, but another program's database");

    QSqlQuery query(m_database);
    for (const char* statement : schema) {
        if (!query.exec(QLatin1String(statement)))
            return text(query.lastError());
    }
    if (!query.exec(QStringLiteral("PRAGMA application_id = %1").arg(ApplicationId))
        || !query.exec(QStringLiteral("PRAGMA user_version = %1").arg(SchemaVersion)))
        return text(query.lastError());
    return QString();
}

QString JournalFile::insert(const JournalBatch& batch)
{
    QSqlQuery execution(m_database);
    execution.prepare(QStringLiteral("INSERT INTO executions (session, trace_id, order_id, symbol,"
                                     " quantity, price, quoted) VALUES (?, ?, ?, ?, ?, ?, ?)"));
    for (const lxclient::Execution& e : batch.executions) {
        execution.addBindValue(m_session);
        execution.addBindValue(e.order.trace_id);
        execution.addBindValue(e.order.order_id);
        execution.addBindValue(e.order.symbol);
        execution.addBindValue(e.order.quantity);
        execution.addBindValue(e.price.toString());
        execution.addBindValue(utc(QDateTime::fromMSecsSinceEpoch(e.time_ms, Qt::UTC)));
        const QString error = run(execution);
        if (!error.isEmpty())
            return error;
    }
    QSqlQuery position(m_database);
    position.prepare(QStringLiteral("INSERT OR REPLACE INTO positions"
                                    " (session, symbol, quantity, trace_id) VALUES (?, ?, ?, ?)"));
    for (const lxclient::Position& p : batch.positions) {
        position.addBindValue(m_session);
        position.addBindValue(p.symbol);
        position.addBindValue(p.quantity);
        position.addBindValue(p.trace_id);
        const QString error = run(position);
        if (!error.isEmpty())
            return error;
    }
    return QString();
}

// The error of the commit if `error` is empty.
QString JournalFile::rollback(const QString& error)
{
    const QString why = error.isEmpty() ? text(m_database.lastError()) : error;
    m_database.rollback();
    return named(why);
}

QString JournalFile::named(const QString& error) const
{
    return QStringLiteral("%1: %2").arg(m_file_name, error);
}
