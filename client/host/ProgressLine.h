// ProgressLine: how far the session has come, while it plays.
#ifndef LXCLIENT_PROGRESSLINE_H
#define LXCLIENT_PROGRESSLINE_H

#include "Backlogs.h"
#include "Tap.h"

#include <QElapsedTimer>

// On a terminal one line on stderr that is written over and over, elsewhere a line every five
// seconds. On the main thread.
class ProgressLine
{
public:
    enum class Amount { All, None };

    explicit ProgressLine(Amount amount);
    // Clears the line.
    ~ProgressLine();
    Q_DISABLE_COPY(ProgressLine)

    // Writes it anew, unless that has been done just now; call it often.
    void show(const Tap& tap, const Backlogs& backlogs);

    // Writes a sentence to stderr instead; the line follows below it. Any thread.
    static void say(const QString& sentence);

private:
    static bool isOnTerminal();
    static void clear();

    const Amount m_amount;
    QElapsedTimer m_session;
    QElapsedTimer m_age;         // of what stands there
    quint64 m_quotes_before = 0; // that it told
};

#endif
