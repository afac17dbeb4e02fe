#include "RecordingWriter.h"

#include "QuoteText.h"

bool RecordingWriter::open(const QString& fileName)
{
    m_file.setFileName(fileName);
    return m_file.open(QIODevice::WriteOnly | QIODevice::Truncate) && put(quotetext::Header + '\n')
        && flush();
}

bool RecordingWriter::write(const lxclient::Quote& quote)
{
    return put(quotetext::formatRow(quote));
}

bool RecordingWriter::flush()
{
    m_failed = m_failed || !m_file.flush();
    return !m_failed;
}

QString RecordingWriter::errorString() const
{
    return QStringLiteral("%1: cannot be written: %2").arg(m_file.fileName(), m_file.errorString());
}

bool RecordingWriter::put(const QByteArray& bytes)
{
    m_failed = m_failed || m_file.write(bytes) != bytes.size();
    return !m_failed;
}
