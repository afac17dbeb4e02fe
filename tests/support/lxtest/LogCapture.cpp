#include <lxtest/LogCapture.h>

#include <QMutex>
#include <QThread>

#include <cstring>

namespace {

// A thread that logs may be on its way through the handler when the capture ends.
QMutex captureMutex;
lxtest::LogCapture* current = nullptr;  // guarded by captureMutex
QtMessageHandler nextHandler = nullptr; // guarded by captureMutex

} // namespace

namespace lxtest {

const char* nameOf(QtMsgType level)
{
    static const char* const names[] = {"debug", "warning", "critical", "fatal", "info"};
    return names[level];
}

LogCapture::LogCapture()
{
    const QMutexLocker locker(&captureMutex);
    if (current)
        qFatal("two log captures at a time");
    current = this;
    nextHandler = qInstallMessageHandler(&LogCapture::take);
}

LogCapture::~LogCapture()
{
    const QMutexLocker locker(&captureMutex);
    current = nullptr;
    qInstallMessageHandler(nextHandler);
}

QVector<LogRecord> LogCapture::records() const
{
    const QMutexLocker locker(&captureMutex);
    QVector<LogRecord> copy = m_records;
    copy.detach(); // storage that is shared would be read without the lock
    return copy;
}

QStringList LogCapture::lines(const char* level) const
{
    QStringList result;
    for (const LogRecord& record : records()) {
        if (record.text.startsWith(QLatin1String(level)))
            result << record.text;
    }
    return result;
}

void LogCapture::clear()
{
    const QMutexLocker locker(&captureMutex);
    m_records.clear();
}

void LogCapture::take(QtMsgType level, const QMessageLogContext& context, const QString& text)
{
    QMutexLocker locker(&captureMutex);
    if (current && context.category && std::strcmp(context.category, "lxbase") == 0) {
        current->m_records.append({QLatin1String(nameOf(level)) + QLatin1String(": ") + text,
                                   QString::fromLocal8Bit(context.file), context.line,
                                   QString::fromLatin1(context.function),
                                   QThread::currentThread()->objectName()});
        return;
    }
    const QtMessageHandler next = nextHandler;
    locker.unlock();
    if (next)
        next(level, context, text);
}

} // namespace lxtest
