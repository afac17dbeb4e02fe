// LogCapture: what the bus logs while a test runs.
#ifndef LXTEST_LOGCAPTURE_H
#define LXTEST_LOGCAPTURE_H

#include <QString>
#include <QStringList>
#include <QVector>
#include <QtGlobal>

namespace lxtest {

const char* nameOf(QtMsgType level);

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
    LogCapture();
    ~LogCapture();
    Q_DISABLE_COPY(LogCapture)

    QVector<LogRecord> records() const;

    // The texts of the records of one level, or of all, in order.
    QStringList lines(const char* level = "") const;

    void clear();

private:
    static void take(QtMsgType level, const QMessageLogContext& context, const QString& text);

    QVector<LogRecord> m_records;
};

} // namespace lxtest

#endif
