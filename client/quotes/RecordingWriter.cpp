#include "RecordingWriter.h"

#include "QuoteText.h"

#include <algorithm>

using lxclient::Error;

namespace {

constexpr int BufferBytes = 64 * 1024;

} // namespace

Error RecordingWriter::open(const QString& fileName)
{
    m_file.setFileName(fileName);
    if (!m_file.open(QIODevice::WriteOnly | QIODevice::Truncate | QIODevice::Unbuffered)) {
        fail();
        return m_error;
    }
    m_buffer = quotetext::Header + '\n';
    const Error error = flush();
    m_written = 0; // the header is no quote
    return error;
}

Error RecordingWriter::write(const lxclient::Quote& quote)
{
    if (m_error)
        return m_error;
    m_buffer += quotetext::formatRow(quote);
    return m_buffer.size() < BufferBytes ? Error() : flush();
}

// A full disk takes some of the rows, and the last of these in part: that part is cut off.
Error RecordingWriter::flush()
{
    if (m_error)
        return m_error;
    const qint64 before = m_file.pos();
    const qint64 taken = std::max<qint64>(m_file.write(m_buffer), 0);
    if (taken < m_buffer.size())
        fail();
    const int whole = m_buffer.left(static_cast<int>(taken)).lastIndexOf('\n') + 1;
    m_written += static_cast<quint64>(m_buffer.left(whole).count('\n'));
    if (m_error)
        m_file.resize(before + whole);
    m_buffer.clear();
    return m_error;
}

void RecordingWriter::fail()
{
    m_error = Error(QStringLiteral("cannot be written: %1").arg(m_file.errorString()))
                  .about(m_file.fileName());
}
