#include "RecordingWriter.h"

#include "QuoteText.h"

using lxclient::Error;

Error RecordingWriter::open(const QString& fileName)
{
    m_file.setFileName(fileName);
    if (!m_file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        fail();
    if (const Error error = put(quotetext::Header + '\n'))
        return error;
    return flush();
}

Error RecordingWriter::write(const lxclient::Quote& quote)
{
    return put(quotetext::formatRow(quote));
}

Error RecordingWriter::flush()
{
    if (!m_error && !m_file.flush())
        fail();
    return m_error;
}

Error RecordingWriter::put(const QByteArray& bytes)
{
    if (!m_error && m_file.write(bytes) != bytes.size())
        fail();
    return m_error;
}

void RecordingWriter::fail()
{
    m_error = Error(QStringLiteral("cannot be written: %1").arg(m_file.errorString()))
                  .about(m_file.fileName());
}
