// UnwrittenFile: rows that the journal could not take, until it can.
#ifndef LXCLIENT_UNWRITTENFILE_H
#define LXCLIENT_UNWRITTENFILE_H

#include "JournalRow.h"

#include <lxclient/Error.h>

#include <functional>

// A text file with one row a line, each a JSON list of strings. It exists while there are such
// rows.
//
// Any number of objects and processes may use one file: each operation has it to itself. Errors
// name the file.
class UnwrittenFile
{
public:
    explicit UnwrittenFile(QString fileName);

    const QString& fileName() const { return m_file_name; }

    // Adds the rows, all or none. When it returns they are on the disk.
    lxclient::Error append(const QVector<JournalRow>& rows);

    // Gives the next row, or nothing at the end, as a null `row.values`.
    using NextRow = std::function<lxclient::Error(JournalRow& row)>;

    // Has `takeAll` take the rows and, if that succeeded, removes the file. A process that dies in
    // between leaves it: who takes the rows has to know them again. Nothing is called without a
    // file.
    lxclient::Error drain(const std::function<lxclient::Error(const NextRow& next)>& takeAll);

    // How many executions of this session there are.
    lxclient::Error count(const QString& session, const QString& started, quint64& executions);

    // The line of a row, with its end.
    static QByteArray lineOf(const JournalRow& row);

private:
    const QString m_file_name;
};

#endif
