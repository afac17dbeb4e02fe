#include "JournalKeeper.h"

#include <cstdio>

using lxclient::Error;

namespace {

Error both(const Error& first, const Error& second)
{
    return second ? Error(QStringLiteral("%1; %2").arg(first.words(), second.words())) : first;
}

} // namespace

JournalKeeper::JournalKeeper(const QString& fileName)
    : m_file_name(fileName)
    , m_unwritten(fileName + QLatin1String(".unwritten"))
{ }

Error JournalKeeper::open()
{
    return m_file.open(m_file_name, m_unwritten, m_standing.taken_in);
}

Error JournalKeeper::write(const JournalBatch& batch)
{
    m_kept.add(batch);
    const Error error = tryToWrite();
    return error && m_kept.executions.size() > KeptLimit ? both(error, spill()) : error;
}

Error JournalKeeper::finish(const JournalBatch& batch)
{
    m_kept.add(batch);
    Error error = tryToWrite();
    if (error) {
        if (const Error second = spill()) {
            error = both(error, second);
            printKept();
        }
    }
    countStanding();
    return error;
}

Error JournalKeeper::tryToWrite()
{
    if (m_standing.unwritten > 0) {
        quint64 taken = 0;
        if (const Error error = m_file.takeIn(m_unwritten, taken))
            return error;
        m_standing.unwritten = 0;
        if (const Error error = m_file.countExecutions(m_standing.rows))
            return error;
    }
    Error error;
    if (!m_kept.isEmpty())
        error = m_file.write(m_kept);
    if (!error) {
        m_standing.rows += static_cast<quint64>(m_kept.executions.size());
        m_kept = JournalBatch();
    }
    m_standing.kept = static_cast<quint64>(m_kept.executions.size());
    return error;
}

Error JournalKeeper::spill()
{
    if (m_kept.isEmpty())
        return {};
    if (const Error error = m_unwritten.append(m_file.rowsOf(m_kept)))
        return error;
    m_standing.unwritten += static_cast<quint64>(m_kept.executions.size());
    m_standing.kept = 0;
    m_kept = JournalBatch();
    return {};
}

// In the form of FILE.unwritten, so that it can be put there.
void JournalKeeper::printKept()
{
    std::fprintf(stderr, "These lines belong into %s:\n", qPrintable(unwrittenName()));
    const QVector<JournalRow> rows = m_file.rowsOf(m_kept);
    for (const JournalRow& row : rows)
        std::fputs(UnwrittenFile::lineOf(row).constData(), stderr);
    m_standing.nowhere = static_cast<quint64>(m_kept.executions.size());
    m_standing.kept = 0;
    m_kept = JournalBatch();
}

// What really is there, where it can be asked.
void JournalKeeper::countStanding()
{
    static_cast<void>(m_file.countExecutions(m_standing.rows));
    static_cast<void>(m_unwritten.count(m_file.session(), m_file.started(), m_standing.unwritten));
}
