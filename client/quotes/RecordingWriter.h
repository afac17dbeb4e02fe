// RecordingWriter: writes quotes as a recording that QuoteReader plays again.
#ifndef LXCLIENT_RECORDINGWRITER_H
#define LXCLIENT_RECORDINGWRITER_H

#include <lxclient/Protocol.h>

#include <QFile>

// One thread at a time. What has been written stays in the file if the process dies, up to the last
// flush.
class RecordingWriter
{
public:
    // Replaces the file. False: it cannot be written, see errorString.
    bool open(const QString& fileName);

    // False: something could not be written, now or before; later quotes are not written then, so
    // that the recording has no gaps.
    bool write(const lxclient::Quote& quote);
    bool flush();

    QString errorString() const;

private:
    bool put(const QByteArray& bytes);

    QFile m_file;
    bool m_failed = false;
};

#endif
