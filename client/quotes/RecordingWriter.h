// RecordingWriter: writes quotes as a recording that QuoteReader plays again.
#ifndef LXCLIENT_RECORDINGWRITER_H
#define LXCLIENT_RECORDINGWRITER_H

#include <lxclient/Error.h>
#include <lxclient/Protocol.h>

#include <QFile>

// One thread at a time. What has been written stays in the file if the process dies, up to the last
// flush.
class RecordingWriter
{
public:
    // Replaces the file.
    lxclient::Error open(const QString& fileName);

    // After an error, here or before, later quotes are not written either, and the same error comes
    // again: the recording has no gaps. It ends with a whole row.
    lxclient::Error write(const lxclient::Quote& quote);
    lxclient::Error flush();

    // How many quotes are in the file.
    quint64 written() const { return m_written; }

private:
    void fail();

    QFile m_file; // unbuffered
    QByteArray m_buffer;
    quint64 m_written = 0;
    lxclient::Error m_error; // the first one
};

#endif
