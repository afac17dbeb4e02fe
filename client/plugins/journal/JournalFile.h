// JournalFile: executions and positions in an SQLite file.
#ifndef LXCLIENT_JOURNALFILE_H
#define LXCLIENT_JOURNALFILE_H

#include "JournalRow.h"
#include "UnwrittenFile.h"

#include <lxclient/Error.h>

#include <QSqlDatabase>
#include <QString>
#include <QVector>

#include <functional>

class QSqlQuery;

// One file may hold many sessions; each open begins one. The file carries a mark and the version of
// its schema; a file without them is refused and left as it is.
//
// Threads: made, used and destroyed on one thread; the connection belongs to it.
class JournalFile
{
public:
    static constexpr int ApplicationId = 0x4C584A31; // marks the file in its header
    static constexpr int SchemaVersion = 1;

    JournalFile();
    ~JournalFile();
    Q_DISABLE_COPY(JournalFile)

    // Opens the file, makes it if it does not exist or is empty, takes in what earlier sessions
    // left in `unwritten`, and begins a session; `taken` executions came from there. Errors here
    // and below name the file. They come soon, also where another program has it locked.
    lxclient::Error open(const QString& fileName, UnwrittenFile& unwritten, quint64& taken);

    // Executions of orders with a lower ID are of earlier sessions. The session that was given one
    // before may have been killed just after it had written it; so it is written only if no session
    // has. Before the first write.
    void setFirstOrder(quint64 orderId) { m_first_order = orderId; }

    // Writes the batch, whole or not at all.
    lxclient::Error write(const JournalBatch& batch);

    // Writes the rows of the file, whole or not at all, and removes it. What stands here already,
    // because a crash came before the file was removed, is not written again and not counted.
    lxclient::Error takeIn(UnwrittenFile& unwritten, quint64& taken);

    // The executions that this session was given, counted in the file.
    lxclient::Error countExecutions(quint64& executions);

    // The batch as rows of this session.
    QVector<JournalRow> rowsOf(const JournalBatch& batch) const;

    // Number and beginning of this session.
    const QString& session() const { return m_session; }
    const QString& started() const { return m_started; }

private:
    lxclient::Error stands(const JournalRow& row, bool& stands);
    lxclient::Error beginSession();
    lxclient::Error prepareSchema();
    lxclient::Error insertOnce(const UnwrittenFile::NextRow& next, quint64& taken);
    lxclient::Error checkSession(const JournalRow& row);
    lxclient::Error transact(const std::function<lxclient::Error()>& work);

    QSqlDatabase m_database;
    QString m_file_name;
    QString m_session;
    QString m_started;
    quint64 m_first_order = 1;
    quint64 m_stood = 0; // executions of this session that an earlier one had written
};

#endif
