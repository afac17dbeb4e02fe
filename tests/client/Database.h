// Database: an SQLite file as another program has it open.
#include <QSqlDatabase>
#include <QSqlQuery>
#include <QUuid>
#include <QVariant>

class Database
{
public:
    explicit Database(const QString& file)
        : m_db(QSqlDatabase::addDatabase("QSQLITE", QUuid::createUuid().toString()))
    {
        m_db.setDatabaseName(file);
        if (!m_db.open())
            qFatal("%s cannot be opened", qPrintable(file));
    }

    bool execute(const QString& statement) { return QSqlQuery(m_db).exec(statement); }

    // The first value of the answer; null: there is none.
    QString ask(const QString& question)
    {
        QSqlQuery query(m_db);
        return query.exec(question) && query.next() ? query.value(0).toString() : QString();
    }

private:
    QSqlDatabase m_db;
};
