// Aftermath: what an inbox leaves to be done when no lock is held any more.
// Internal: not installed.
#ifndef LXBASE_AFTERMATH_H
#define LXBASE_AFTERMATH_H

#include <lxbase/LostItems.h>
#include <lxbase/Watermark.h>

#include <QString>

#include <algorithm>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

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

    // Room for one item more, so that giving it does not throw.
    void makeRoom()
    {
        if (m_first.item && m_more.size() == m_more.capacity())
            m_more.reserve(std::max<std::size_t>(8, 2 * m_more.size()));
    }

    // From here on the item is this one's. A superseded one is not lost.
    void takeSuperseded(Item* item) { take({std::unique_ptr<Item>(item), {}, {}, {}}); }
    void takeLost(Item* item, LostReason reason, InboxKind kind, const QString& plugin)
    {
        take({std::unique_ptr<Item>(item), reason, kind, plugin});
    }

    // Crossings that have been found.
    void takeCrossings(std::shared_ptr<Watermark> watermark)
    {
        m_watermarks.push_back(std::move(watermark));
    }

    // With no lock held; it is empty again then.
    void finish()
    {
        if (m_first.item) {
            settle(std::exchange(m_first, {}));
            if (!m_more.empty()) {
                for (Displaced& displaced : std::exchange(m_more, {}))
                    settle(std::move(displaced));
            }
        }
        if (!m_watermarks.empty()) {
            for (const auto& watermark : std::exchange(m_watermarks, {}))
                watermark->tell();
        }
    }

private:
    struct Displaced
    {
        std::unique_ptr<Item> item;
        std::optional<LostReason> reason; // none: superseded
        InboxKind kind{};
        QString plugin;
    };

    void take(Displaced displaced)
    {
        if (m_first.item)
            m_more.push_back(std::move(displaced));
        else
            m_first = std::move(displaced);
    }

    static void settle(Displaced displaced)
    {
        if (displaced.reason) {
            LostItems::instance().note(*displaced.item, *displaced.reason, displaced.kind,
                                       displaced.plugin);
        }
    }

    Displaced m_first; // a put to one receiver displaces one at most: that takes no memory
    std::vector<Displaced> m_more;
    std::vector<std::shared_ptr<Watermark>> m_watermarks;
};

} // namespace lxbase::detail

#endif
