#include "ProgressLine.h"

#include <QDateTime>

#include <cstdio>
#include <unistd.h>

namespace {

constexpr int RefreshMs = 200;

} // namespace

ProgressLine::ProgressLine()
{
    m_session.start();
    m_age.start();
}

ProgressLine::~ProgressLine()
{
    clear();
}

void ProgressLine::show(const Tap& tap)
{
    if (!isOnTerminal() || m_age.elapsed() < RefreshMs)
        return;
    m_age.restart();
    const Tap::Progress progress = tap.progress();
    const QString time = QDateTime::fromMSecsSinceEpoch(progress.time_ms, Qt::UTC)
                             .toString(QStringLiteral("yyyy-MM-dd hh:mm:ss"));
    std::fprintf(stderr, "\r\033[K%s quotes, %s UTC, %lld s",
                 qPrintable(lxclient::grouped(static_cast<qint64>(progress.quotes))),
                 qPrintable(time), m_session.elapsed() / 1000);
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
