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

    // Room for one item more, so that taking it does not throw.
    void makeRoom()
    {
        if (m_items.size() == m_items.capacity())
            m_items.reserve(std::max<std::size_t>(8, 2 * m_items.size()));
    }

    // A superseded item is not lost.
    void takeSuperseded(std::unique_ptr<Item> item)
    {
        m_items.push_back({std::move(item), {}, {}, {}});
    }
    void takeLost(std::unique_ptr<Item> item, LostReason reason, InboxKind kind,
                  const QString& plugin)
    {
        m_items.push_back({std::move(item), reason, kind, plugin});
    }

    // Crossings that have been found.
    void takeCrossings(std::shared_ptr<Watermark> watermark)
    {
        m_watermarks.push_back(std::move(watermark));
    }

    // With no lock held; it is empty again then.
    void finish()
    {
        for (const Displaced& displaced : std::exchange(m_items, {})) {
            if (displaced.reason) {
                LostItems::instance().note(*displaced.item, *displaced.reason, displaced.kind,
                                           displaced.plugin);
            }
        }
        for (const auto& watermark : std::exchange(m_watermarks, {}))
            watermark->tell();
    }

private:
    struct Displaced
    {
        std::unique_ptr<Item> item;
        std::optional<LostReason> reason; // none: superseded
        InboxKind kind{};
        QString plugin;
    };

    std::vector<Displaced> m_items;
    std::vector<std::shared_ptr<Watermark>> m_watermarks;
};

} // namespace lxbase::detail

#endif
