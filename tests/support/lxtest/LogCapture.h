// LogCapture: what the bus logs while a test runs.
#ifndef LXTEST_LOGCAPTURE_H
#define LXTEST_LOGCAPTURE_H

#include <QMutex>
#include <QString>
#include <QStringList>
#include <QThread>
#include <QVector>
#include <QtGlobal>

namespace lxtest {

inline QString nameOf(QtMsgType level)
{
    static const char* const names[] = {"debug", "warning", "critical", "fatal", "info"};
    return QString::fromLatin1(names[level]);
}

struct LogRecord
{
    QString text; // behind its level: "warning: ..."
    QString file;
    int line;
    QString function;
    QString thread; // object name of the thread that wrote it
};

// Takes the records of the category "lxbase" for as long as it lives, from every thread; the others
// go on to the handler that was there before. One at a time.
class LogCapture
{
public:
    LogCapture()
    {
        const QMutexLocker locker(&s_mutex);
        s_current = this;
        s_next = qInstallMessageHandler(&LogCapture::take);
    }
    ~LogCapture()
    {
        const QMutexLocker locker(&s_mutex);
        s_current = nullptr;
        qInstallMessageHandler(s_next);
    }
    Q_DISABLE_COPY(LogCapture)

    QVector<LogRecord> records() const
    {
        const QMutexLocker locker(&s_mutex);
        QVector<LogRecord> copy = m_records;
        copy.detach(); // storage that is shared would be read without the lock
        return copy;
    }

    // The texts of the records of one level, or of all, in order.
    QStringList lines(const char* level = "") const
    {
        QStringList result;
        for (const LogRecord& record : records()) {
            if (record.text.startsWith(QLatin1String(level)))
                result << record.text;
        }
        return result;
    }

    void clear()
    {
        const QMutexLocker locker(&s_mutex);
        m_records.clear();
    }

private:
    static void take(QtMsgType level, const QMessageLogContext& context, const QString& text)
    {
        QMutexLocker locker(&s_mutex);
        if (s_current && qstrcmp(context.category, "lxbase") == 0) {
            s_current->m_records.append({nameOf(level) + QStringLiteral(": ") + text,
                                         QString::fromLocal8Bit(context.file), context.line,
                                         QString::fromLatin1(context.function),
                                         QThread::currentThread()->objectName()});
            return;
        }
        const QtMessageHandler next = s_next;
        locker.unlock();
        if (next)
            next(level, context, text);
    }

    // A thread that logs may be on its way through the handler when the capture ends.
    inline static QMutex s_mutex;
    inline static LogCapture* s_current = nullptr;   // guarded by s_mutex
    inline static QtMessageHandler s_next = nullptr; // guarded by s_mutex
    QVector<LogRecord> m_records;                    // guarded by s_mutex
};

} // namespace lxtest

#endif
