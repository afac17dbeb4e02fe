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
    // again: the recording has no gaps.
    lxclient::Error write(const lxclient::Quote& quote);
    lxclient::Error flush();

private:
    lxclient::Error put(const QByteArray& bytes);
    void fail();

    QFile m_file;
    lxclient::Error m_error; // the first one
};

#endif
