// Watermark: tells an observer that the depth of an inbox has crossed its marks.
// Internal: not installed.
#ifndef LXBASE_WATERMARK_H
#define LXBASE_WATERMARK_H

#include <lxbase/InboxPolicy.h>

#include <QMutex>
#include <QQueue>

namespace lxbase::detail {

// One for each inbox with watermarks, shared by its limiter and by whoever is about to tell.
//
// A crossing is found with the mutex of the inbox held, and told later, with none. So that a thread
// that is late does not tell the way up after another has told the way down, crossings queue up,
// and one thread at a time tells them.
class Watermark
{
public:
    Watermark(const QString& plugin, IMessageInterface::ThreadType kind, const InboxPolicy& policy);
    Q_DISABLE_COPY(Watermark)

    // With the mutex of the inbox held: so many items wait now. True: a mark has been crossed, and
    // the caller sees to it that tell() is called when no lock is held any more.
    bool isCrossedAt(int waiting)
    {
        if (m_above ? waiting > m_low : waiting < m_high)
            return false;
        cross(waiting);
        return true;
    }

    // Likewise: the inbox is not watched any more, and who was told that it is full hears the end
    // of it.
    bool isCrossedAtEnd(int waiting);

    // With no lock held: calls the observer with what it has not been told, or leaves that to the
    // thread that is doing so.
    void tell();

private:
    void cross(int waiting);

    const QString m_plugin;
    const IMessageInterface::ThreadType m_kind;
    const int m_high;
    const int m_low;
    const std::function<void(const InboxCrossing&)> m_observer;

    bool m_above = false; // guarded by the mutex of the inbox

    QMutex m_mutex; // inside that of the inbox; no other lock is taken inside
    // guarded by m_mutex
    QQueue<InboxCrossing> m_untold;
    bool m_telling = false; // somebody is in tell()
};

} // namespace lxbase::detail

#endif
