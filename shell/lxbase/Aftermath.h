// Aftermath: what an inbox leaves to be done when no lock is held any more.
// Internal: not installed.
#ifndef LXBASE_AFTERMATH_H
#define LXBASE_AFTERMATH_H

#include <lxbase/LostItems.h>
#include <lxbase/Watermark.h>

#include <QString>

#include <memory>

struct EventQueueItem;
struct MsgQueueItem;

namespace lxbase::detail {

// Items that have lost their place in an inbox, to be noted where they are lost, and freed: their
// payloads may be of any class. And crossings, to be told. It is one thread's own, which gives it
// to an inbox while the mutex is held, and calls finish() later.
template<class Item>
class Aftermath
{
public:
    Aftermath() = default;
    Q_DISABLE_COPY(Aftermath)

    // Room for one item more, so that taking it does not throw.
    enum class For { Superseded, Lost };
    void makeRoom(For what)
    {
        if (what == For::Lost || m_superseded)
            makeMoreRoom();
    }

    // From here on the item is this one's. A superseded one is not lost.
    void takeSuperseded(Item* item);
    void takeLost(Item* item, LostReason reason, InboxKind kind, const QString& plugin);

    // Crossings that have been found.
    void takeCrossings(std::shared_ptr<Watermark> watermark);

    // With no lock held; it is empty again then.
    void finish()
    {
        if (m_superseded || m_more)
            finishAll();
    }

private:
    struct More;
    struct Free // out of line, like all that is done seldom: a put that leaves nothing stays short
    {
        void operator()(Item* item) const;
        void operator()(More* more) const;
    };

    More& more();
    void makeMoreRoom();
    void finishAll();

    // A put to one receiver supersedes one item at most.
    std::unique_ptr<Item, Free> m_superseded;
    std::unique_ptr<More, Free> m_more; // made when it is needed
};

extern template class Aftermath<MsgQueueItem>;
extern template class Aftermath<EventQueueItem>;

} // namespace lxbase::detail

#endif
