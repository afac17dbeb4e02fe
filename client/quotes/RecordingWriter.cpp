#include "RecordingWriter.h"

#include "QuoteText.h"

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
    int taken = 0;
    while (taken < m_buffer.size() && !m_error) {
        const qint64 more = m_file.write(m_buffer.constData() + taken, m_buffer.size() - taken);
        if (more > 0)
            taken += static_cast<int>(more);
        else
            fail();
    }
    m_buffer.truncate(m_buffer.left(taken).lastIndexOf('\n') + 1);
    m_written += static_cast<quint64>(m_buffer.count('\n'));
    if (m_error)
        m_file.resize(before + m_buffer.size());
    m_buffer.clear();
    return m_error;
}

void RecordingWriter::fail()
{
    m_error = Error(QStringLiteral("cannot be written: %1").arg(m_file.errorString()))
                  .about(m_file.fileName());
}
