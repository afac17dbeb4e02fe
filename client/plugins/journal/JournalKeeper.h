// JournalKeeper: sees to it that every execution comes to stand in the journal, or where it can be
// taken from there later.
#ifndef LXCLIENT_JOURNALKEEPER_H
#define LXCLIENT_JOURNALKEEPER_H

#include "JournalFile.h"
#include "UnwrittenFile.h"

// What the journal cannot take, because it is locked or the disk is full, is kept in memory; when
// that gets to be much, and at the end, it goes to the file FILE.unwritten beside the journal. As
// soon as the journal can be written again it gets everything, in the order of the executions: what
// is in the file is always older than what is in memory. What is left in the file at the end is
// taken in when the journal is opened the next time.
//
// Threads: as JournalFile.
class JournalKeeper
{
public:
    static constexpr int KeptLimit = 10'000; // executions in memory

    // How many executions of this session stand where.
    struct Standing
    {
        quint64 rows = 0;      // in the journal
        quint64 kept = 0;      // in memory
        quint64 unwritten = 0; // in FILE.unwritten
        quint64 nowhere = 0;   // after finish: printed to stderr, for want of anything better
        quint64 taken_in = 0;  // besides: of earlier sessions, from FILE.unwritten
    };

    explicit JournalKeeper(const QString& fileName);

    lxclient::Error open();

    // See JournalFile.
    void setFirstOrder(quint64 orderId) { m_file.setFirstOrder(orderId); }

    // Takes the batch over and writes all that is to be written. If that fails the batch is kept;
    // an empty batch tries again.
    lxclient::Error write(const JournalBatch& batch);

    // The same for the last time. What then is kept goes to FILE.unwritten.
    lxclient::Error finish(const JournalBatch& batch);

    const Standing& standing() const { return m_standing; }
    QString unwrittenName() const { return m_unwritten.fileName(); }

private:
    lxclient::Error tryToWrite();
    lxclient::Error spill();
    void printKept();
    void countStanding();

    const QString m_file_name;
    UnwrittenFile m_unwritten;
    JournalFile m_file;
    JournalBatch m_kept;
    Standing m_standing;
};

#endif
