// ProgressLine: how far the session has come, while it plays.
#ifndef LXCLIENT_PROGRESSLINE_H
#define LXCLIENT_PROGRESSLINE_H

#include "Tap.h"

#include <QElapsedTimer>

// One line on stderr that is written over and over; nothing if stderr is no terminal. On the main
// thread.
class ProgressLine
{
public:
    ProgressLine();
    // Clears the line.
    ~ProgressLine();
    Q_DISABLE_COPY(ProgressLine)

    // Writes it anew, unless that has been done just now; call it often.
    void show(const Tap& tap);

    // Writes a sentence to stderr instead; the line follows below it. Any thread.
    static void say(const QString& sentence);

private:
    static bool isOnTerminal();
    static void clear();

    QElapsedTimer m_session;
    QElapsedTimer m_age; // of what stands there
};

#endif
