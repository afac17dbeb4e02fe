// JournalFile: executions and positions in an SQLite file.
#ifndef LXCLIENT_JOURNALFILE_H
#define LXCLIENT_JOURNALFILE_H

#include <lxclient/Error.h>
#include <lxclient/Protocol.h>

#include <QSqlDatabase>
#include <QString>
#include <QVector>

#include <functional>

// What is written in one transaction: all of it or, if the process dies meanwhile, nothing.
struct JournalBatch
{
    QVector<lxclient::Execution> executions;
    QVector<lxclient::Position> positions;

    bool isEmpty() const { return executions.isEmpty() && positions.isEmpty(); }
};

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

    // Opens the file, makes it if it does not exist or is empty, and begins a session. Errors here
    // and below name the file.
    lxclient::Error open(const QString& fileName);

    // Writes the batch, whole or not at all.
    lxclient::Error write(const JournalBatch& batch);

    // The executions of this session, counted in the file.
    quint64 countExecutions();

private:
    lxclient::Error beginSession();
    lxclient::Error prepareSchema();
    lxclient::Error insert(const JournalBatch& batch);
    lxclient::Error transact(const std::function<lxclient::Error()>& work);

    QSqlDatabase m_database;
    QString m_file_name;
    qint64 m_session = 0;
};

#endif
