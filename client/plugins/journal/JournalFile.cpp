#include "JournalFile.h"

#include <QDateTime>
#include <QSqlError>
#include <QSqlQuery>
#include <QUuid>

#include <utility>

using lxclient::Error;

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

// In the database's own words; the framework's say what it was doing as well.
Error errorOf(const QSqlError& error)
{
    return Error(error.databaseText().isEmpty() ? error.text() : error.databaseText());
}

Error run(QSqlQuery& query)
{
    return query.exec() ? Error() : errorOf(query.lastError());
}

// Asks for one number.
Error ask(const QSqlDatabase& database, const QString& question, int& answer)
{
    QSqlQuery query(database);
    if (!query.exec(question) || !query.next())
        return errorOf(query.lastError());
    answer = query.value(0).toInt();
    return {};
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

Error JournalFile::open(const QString& fileName)
{
    m_file_name = fileName;
    if (!m_database.isValid()) {
        return Error(QStringLiteral("the SQLite driver of the framework's SQL module is missing"))
            .about(fileName);
    }
    m_database.setDatabaseName(fileName);
    if (!m_database.open())
        return errorOf(m_database.lastError()).about(fileName);
    return transact([this] {
        const Error error = prepareSchema();
        return error ? error : beginSession();
    });
}

Error JournalFile::write(const JournalBatch& batch)
{
    return transact([&] { return insert(batch); });
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
Error JournalFile::prepareSchema()
{
    int mark = 0;
    int version = 0;
    int tables = 0;
    const std::pair<const char*, int*> questions[] = {
        {"PRAGMA application_id", &mark},
        {"PRAGMA user_version", &version},
        {"SELECT count(*) FROM sqlite_master", &tables},
    };
    for (const auto& [question, answer] : questions) {
        if (const Error error = ask(m_database, QLatin1String(question), *answer))
            return Error(QStringLiteral("is no journal (%1)").arg(error.words()));
    }
    if (mark == ApplicationId && version == SchemaVersion)
        return {};
    if (mark == ApplicationId) {
        return Error(QStringLiteral("is a journal of version %1, this program writes version %2")
                         .arg(version)
                         .arg(SchemaVersion));
    }
    if (mark != 0 || version != 0 || tables != 0)
        return Error(QStringLiteral("is no journal, but another program's database"));

    QSqlQuery query(m_database);
    for (const char* statement : schema) {
        if (!query.exec(QLatin1String(statement)))
            return errorOf(query.lastError());
    }
    if (!query.exec(QStringLiteral("PRAGMA application_id = %1").arg(ApplicationId))
        || !query.exec(QStringLiteral("PRAGMA user_version = %1").arg(SchemaVersion)))
        return errorOf(query.lastError());
    return {};
}

Error JournalFile::beginSession()
{
    QSqlQuery query(m_database);
    query.prepare(QStringLiteral("INSERT INTO sessions (started) VALUES (?)"));
    query.addBindValue(utc(QDateTime::currentDateTimeUtc()));
    if (const Error error = run(query))
        return error;
    m_session = query.lastInsertId().toLongLong();
    return {};
}

Error JournalFile::insert(const JournalBatch& batch)
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
        if (const Error error = run(execution))
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
        if (const Error error = run(position))
            return error;
    }
    return {};
}

// Does the work in one transaction: all of it stays, or nothing.
Error JournalFile::transact(const std::function<Error()>& work)
{
    if (!m_database.transaction())
        return errorOf(m_database.lastError()).about(m_file_name);
    Error error = work();
    if (!error && !m_database.commit())
        error = errorOf(m_database.lastError());
    if (error)
        m_database.rollback();
    return error.about(m_file_name);
}
