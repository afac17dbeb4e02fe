#include "ProgressLine.h"

#include <QDateTime>

#include <cstdio>
#include <unistd.h>

namespace {

constexpr int RefreshMs = 200; // on a terminal
constexpr int IntervalMs = 5000;

} // namespace

ProgressLine::ProgressLine(Amount amount)
    : m_amount(amount)
{
    m_session.start();
    m_age.start();
}

ProgressLine::~ProgressLine()
{
    clear();
}

void ProgressLine::show(const Tap& tap, const Backlogs& backlogs)
{
    const qint64 age = m_age.elapsed();
    if (m_amount == Amount::None || age < (isOnTerminal() ? RefreshMs : IntervalMs))
        return;
    m_age.restart();
    const Tap::Progress progress = tap.progress();
    const auto perSecond = static_cast<qint64>(progress.quotes - m_quotes_before) * 1000 / age;
    m_quotes_before = progress.quotes;
    QString line = QStringLiteral("%1 s, %2 quotes, %3/s")
                       .arg(m_session.elapsed() / 1000)
                       .arg(lxclient::grouped(static_cast<qint64>(progress.quotes)),
                            lxclient::grouped(perSecond));
    if (progress.quotes > 0) {
        line += QDateTime::fromMSecsSinceEpoch(progress.time_ms, Qt::UTC)
                    .toString(QStringLiteral(", 'up to' yyyy-MM-dd hh:mm:ss 'UTC'"));
    }
    const bool behind =
        !backlogs.now().isEmpty() && backlogs.now().first().items >= Backlogs::Noticeable;
    line += behind ? QStringLiteral("; slowest ") + backlogs.now().first().toString()
                   : QStringLiteral("; nobody is behind");
    std::fprintf(stderr, isOnTerminal() ? "\r\033[K%s" : "lxclient: %s\n", qPrintable(line));
}

// In one call, so that nothing comes between.
void ProgressLine::say(const QString& sentence)
{
    std::fprintf(stderr, "%slxclient: %s\n", isOnTerminal() ? "\r\033[K" : "",
                 qPrintable(sentence));
}

bool ProgressLine::isOnTerminal()
{
    static const bool answer = ::isatty(STDERR_FILENO) == 1;
    return answer;
}

void ProgressLine::clear()
{
    if (isOnTerminal())
        std::fputs("\r\033[K", stderr);
}
