// StoreFile: an SQLite file that outlives crashes of its process and of the machine.
#ifndef LXCLIENT_LINK_STOREFILE_H
#define LXCLIENT_LINK_STOREFILE_H

#include <lxclient/Error.h>

#include <QSqlDatabase>
#include <QSqlQuery>
#include <QString>
#include <QVariantList>

#include <functional>

namespace lxlink {

// Where the reader of a stream is to go on.
struct Cursor
{
    QString stream; // which it was: made anew, it is another
    quint64 sequence = 0;
};

// Used on one thread. The file belongs to one process at a time. What a transaction has committed
// is on the disk (synchronous FULL).
class StoreFile
{
public:
    StoreFile();
    ~StoreFile();
    Q_DISABLE_COPY(StoreFile)

    // Makes the tables, and an epoch, if the file is new; a file that is none of `kind` is refused.
    lxclient::Error open(const QString& fileName, const QString& kind,
                         const QStringList& statements);

    // All of it, or nothing.
    lxclient::Error transact(const std::function<lxclient::Error()>& work);

    // Runs one statement; `query` has its rows.
    lxclient::Error run(QSqlQuery& query, const QString& statement,
                        const QVariantList& values = {});
    lxclient::Error run(const QString& statement, const QVariantList& values = {});
    QSqlQuery query() const { return QSqlQuery(m_database); }

    // Numbers that the store keeps by name; 0 at the beginning.
    lxclient::Error number(const QString& name, quint64& value);
    lxclient::Error setNumber(const QString& name, quint64 value);

    lxclient::Error cursor(Cursor& cursor);
    lxclient::Error setCursor(const Cursor& cursor);

    // Of this file; of files made later it is greater.
    quint64 epoch() const { return m_epoch; }

private:
    lxclient::Error text(const QString& name, QString& value);
    lxclient::Error setText(const QString& name, const QString& value);

    QSqlDatabase m_database;
    QString m_file_name;
    quint64 m_epoch = 0;
};

} // namespace lxlink

#endif
