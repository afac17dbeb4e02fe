// BusTest: the base class of the tests of the bus, with all that they share.
#ifndef LXTEST_BUSTEST_H
#define LXTEST_BUSTEST_H

#include <lxtest/TestMain.h>

#include <optional>

namespace lxtest {

// The records of the bus, from every thread, for as long as it lives: "warning: ...". What others
// log goes on to the handler that was there before. One at a time.
class LogCapture
{
public:
    LogCapture()
    {
        clear();
        s_next = qInstallMessageHandler(&LogCapture::take);
    }
    ~LogCapture() { qInstallMessageHandler(s_next); }
    Q_DISABLE_COPY(LogCapture)

    // Of one level, or all, in order.
    QStringList lines(const char* level = "") const
    {
        const QMutexLocker locker(&s_mutex);
        return s_lines.filter(QRegularExpression(QLatin1Char('^') + QLatin1String(level)));
    }

    // Of the last record: "shell/lxbase/X.cpp, void X::function(...)"
    QString lastPlace() const
    {
        const QMutexLocker locker(&s_mutex);
        return s_last_place;
    }

    void clear()
    {
        const QMutexLocker locker(&s_mutex);
        s_lines.clear();
    }

private:
    static void take(QtMsgType level, const QMessageLogContext& context, const QString& text)
    {
        if (qstrcmp(context.category, "lxbase") != 0)
            return s_next(level, context, text);
        const QMutexLocker locker(&s_mutex);
        s_lines << nameOf(level) + QStringLiteral(": ") + text;
        s_last_place = QStringLiteral("%1, %2").arg(context.file, context.function);
    }

    // Static: a thread that logs may be on its way through the handler when the capture ends.
    inline static QtMessageHandler s_next = nullptr;
    inline static QMutex s_mutex;
    inline static QStringList s_lines;  // guarded by s_mutex
    inline static QString s_last_place; // guarded by s_mutex
};

// Captures the log during each test, and demands after it that every record and every payload has
// been deleted, and once.
class BusTest : public QObject
{
    Q_OBJECT

protected:
    std::optional<LogCapture> m_log;

private slots:
    void init() { m_log.emplace(); }
    void cleanup()
    {
        m_log.reset();
        runDeferredDeletes();
        LX_WAIT_FOR(CountedMessage::alive() == 0); // a dispatch thread may be the last to let go
        QCOMPARE(CountedEvent::alive(), 0);
        LX_WAIT_FOR(CountedPayload::alive() == 0);
    }
};

} // namespace lxtest

#endif
