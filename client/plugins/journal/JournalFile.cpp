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

// So long another program's transaction is waited for: at the beginning, since there is nothing
// else to do, and then, where the rows are kept meanwhile.
constexpr int OpeningPatienceMs = 2000;
constexpr int WritingPatienceMs = 500;

// By JournalRow::Table. Of an execution the first only inserts, the second does nothing where the
// very same row is there.
const char* const insertion[] = {
    "INSERT INTO executions (session, trace_id, order_id, symbol, quantity, price, quoted)"
    " VALUES (?, ?, ?, ?, ?, ?, ?)",
    "INSERT OR REPLACE INTO positions (session, symbol, quantity, trace_id) VALUES (?1, ?2, ?3, "
    "?4)",
};
const char* const insertionOnce[] = {
    "INSERT INTO executions (session, trace_id, order_id, symbol, quantity, price, quoted)"
    " SELECT ?, ?, ?, ?, ?, ?, ? WHERE NOT EXISTS (SELECT 1 FROM executions WHERE"
    " session = ? AND trace_id = ? AND order_id = ? AND symbol = ? AND quantity = ?"
    " AND price = ? AND quoted = ?)",
    insertion[JournalRow::Positions],
};

// What the user can do something about in plain words, all else in the database's own; the
// framework's say what it was doing as well.
Error errorOf(const QSqlError& error)
{
    enum { Busy = 5, Locked = 6, NotADatabase = 26 }; // SQLite's, in the low byte of the code
    switch (error.nativeErrorCode().toInt() & 0xff) {
    case Busy:
    case Locked:
        return Error(QStringLiteral("is locked by another program"));
    case NotADatabase:
        return Error(QStringLiteral("is no journal (%1)").arg(error.databaseText()));
    default:
        return Error(error.databaseText().isEmpty() ? error.text() : error.databaseText());
    }
}

Error run(QSqlQuery& query)
{
    return query.exec() ? Error() : errorOf(query.lastError());
}

// Binds the values, all of them again where the statement has places for that, and runs it.
Error insertRow(QSqlQuery& query, const JournalRow& row)
{
    const int places = query.lastQuery().count(QLatin1Char('?'));
    for (int i = 0; i < places; ++i) {
        const QString& value = row.values[i % row.values.size()];
        query.addBindValue(value.isNull() ? QString(QLatin1String("")) : value); // not NULL
    }
    return run(query);
}

Error execute(const QSqlDatabase& database, const QString& statement)
{
    QSqlQuery query(database);
    return query.exec(statement) ? Error() : errorOf(query.lastError());
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

Error JournalFile::open(const QString& fileName, UnwrittenFile& unwritten, quint64& taken)
{
    m_file_name = fileName;
    if (!m_database.isValid()) {
        return Error(QStringLiteral("the SQLite driver of the framework's SQL module is missing"))
            .about(fileName);
    }
    const QString patience = QStringLiteral("QSQLITE_BUSY_TIMEOUT=%1");
    m_database.setDatabaseName(fileName);
    m_database.setConnectOptions(patience.arg(OpeningPatienceMs));
    if (!m_database.open())
        return errorOf(m_database.lastError()).about(fileName);
    if (const Error error = transact([this] { return prepareSchema(); }))
        return error;
    if (const Error error = takeIn(unwritten, taken))
        return error;
    if (const Error error = transact([this] { return beginSession(); }))
        return error;
    return execute(m_database, QStringLiteral("PRAGMA busy_timeout = %1").arg(WritingPatienceMs))
        .about(fileName);
}

Error JournalFile::write(const JournalBatch& batch)
{
    quint64 stood = 0;
    const Error error = transact([&] {
        QSqlQuery queries[] = {QSqlQuery(m_database), QSqlQuery(m_database)};
        for (int table : {JournalRow::Executions, JournalRow::Positions}) {
            if (!queries[table].prepare(QLatin1String(insertion[table])))
                return errorOf(queries[table].lastError());
        }
        const QVector<JournalRow> rows = rowsOf(batch);
        for (const JournalRow& row : rows) {
            bool known = false;
            if (const Error failed = stands(row, known))
                return failed;
            if (known) {
                ++stood;
                continue;
            }
            if (const Error failed = insertRow(queries[row.table], row))
                return failed;
        }
        return Error();
    });
    if (!error)
        m_stood += stood;
    return error;
}

Error JournalFile::takeIn(UnwrittenFile& unwritten, quint64& taken)
{
    quint64 inserted = 0;
    const Error error = unwritten.drain([&](const UnwrittenFile::NextRow& next) {
        Error notARow; // names its own file, not this one
        const Error error = transact([&] {
            return insertOnce(
                [&](JournalRow& row) {
                    notARow = next(row);
                    return notARow;
                },
                inserted);
        });
        return notARow ? notARow : error;
    });
    if (!error)
        taken = inserted;
    return error;
}

Error JournalFile::countExecutions(quint64& executions)
{
    int count = 0;
    const Error error = ask(
        m_database,
        QStringLiteral("SELECT count(*) FROM executions WHERE session = %1").arg(m_session), count);
    if (!error)
        executions = static_cast<quint64>(count) + m_stood;
    return error.about(m_file_name);
}

QVector<JournalRow> JournalFile::rowsOf(const JournalBatch& batch) const
{
    QVector<JournalRow> rows;
    for (const lxclient::Execution& e : batch.executions) {
        rows.append({JournalRow::Executions,
                     m_started,
                     {m_session, e.order.trace_id, QString::number(e.order.order_id),
                      e.order.symbol, QString::number(e.order.quantity), e.price.toString(),
                      utc(QDateTime::fromMSecsSinceEpoch(e.time_ms, Qt::UTC))}});
    }
    for (const lxclient::Position& p : batch.positions) {
        rows.append({JournalRow::Positions,
                     m_started,
                     {m_session, p.symbol, QString::number(p.quantity), p.trace_id}});
    }
    return rows;
}

// In one transaction: a process that dies meanwhile leaves an empty file, not half a
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
            return error;
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

// Of an execution of an earlier session's order: whether it is in the journal.
Error JournalFile::stands(const JournalRow& row, bool& stands)
{
    if (row.table != JournalRow::Executions || row.values[2].toULongLong() >= m_first_order)
        return {};
    QSqlQuery query(m_database);
    query.prepare(QStringLiteral("SELECT 1 FROM executions WHERE trace_id = ? AND order_id = ? AND "
                                 "symbol = ? AND quantity = ? AND price = ? AND quoted = ?"));
    for (int i = 1; i < row.values.size(); ++i)
        query.addBindValue(row.values[i]);
    if (const Error error = run(query))
        return error;
    stands = query.next();
    return {};
}

Error JournalFile::beginSession()
{
    QSqlQuery query(m_database);
    query.prepare(QStringLiteral("INSERT INTO sessions (started) VALUES (?)"));
    m_started = utc(QDateTime::currentDateTimeUtc());
    query.addBindValue(m_started);
    if (const Error error = run(query))
        return error;
    m_session = query.lastInsertId().toString();
    return {};
}

Error JournalFile::insertOnce(const UnwrittenFile::NextRow& next, quint64& taken)
{
    QSqlQuery queries[] = {QSqlQuery(m_database), QSqlQuery(m_database)};
    for (int table : {JournalRow::Executions, JournalRow::Positions}) {
        if (!queries[table].prepare(QLatin1String(insertionOnce[table])))
            return errorOf(queries[table].lastError());
    }
    QString checked; // most rows are of one session
    for (;;) {
        JournalRow row;
        if (const Error error = next(row))
            return error;
        if (row.values.isEmpty())
            return {};
        const QString session = row.started + row.values.first();
        if (session != checked) {
            if (const Error error = checkSession(row))
                return error;
            checked = session;
        }
        if (const Error error = insertRow(queries[row.table], row))
            return error;
        if (row.table == JournalRow::Executions)
            taken += static_cast<quint64>(queries[row.table].numRowsAffected());
    }
}

// Rows must not end up under a session of another journal that has the same number.
Error JournalFile::checkSession(const JournalRow& row)
{
    QSqlQuery query(m_database);
    query.prepare(QStringLiteral("SELECT 1 FROM sessions WHERE id = ? AND started = ?"));
    query.addBindValue(row.values.first());
    query.addBindValue(row.started);
    if (const Error error = run(query))
        return error;
    if (query.next())
        return {};
    return Error(QStringLiteral("has no session %1 of %2, of which %3.unwritten holds executions; "
                                "move that file to the journal that it belongs to")
                     .arg(row.values.first(), row.started, m_file_name));
}

// Does the work in one transaction: all of it stays, or nothing. It waits for its turn here, and
// not in the middle, where two that have begun could only wait for each other.
Error JournalFile::transact(const std::function<Error()>& work)
{
    Error error = execute(m_database, QStringLiteral("BEGIN IMMEDIATE"));
    if (error)
        return error.about(m_file_name);
    error = work();
    if (!error)
        error = execute(m_database, QStringLiteral("COMMIT"));
    if (error) // a full disk may have ended it already
        static_cast<void>(execute(m_database, QStringLiteral("ROLLBACK")));
    return error.about(m_file_name);
}
