#include <lxbase/Aftermath.h>

#include <lxbase/QueueItems.h>

#include <algorithm>
#include <optional>
#include <utility>
#include <vector>

namespace lxbase::detail {

template<class Item>
struct Aftermath<Item>::More
{
    struct Displaced
    {
        std::unique_ptr<Item> item;
        std::optional<LostReason> reason; // none: superseded
        InboxKind kind{};
        QString plugin;
    };
    std::vector<Displaced> items;
    std::vector<std::shared_ptr<Watermark>> watermarks;
};

template<class Item>
void Aftermath<Item>::Free::operator()(Item* item) const
{
    delete item;
}

template<class Item>
void Aftermath<Item>::Free::operator()(More* more) const
{
    delete more;
}

template<class Item>
void Aftermath<Item>::takeSuperseded(Item* item)
{
    if (m_superseded)
        more().items.push_back({std::unique_ptr<Item>(item), {}, {}, {}});
    else
        m_superseded.reset(item);
}

template<class Item>
void Aftermath<Item>::takeLost(Item* item, LostReason reason, InboxKind kind, const QString& plugin)
{
    more().items.push_back({std::unique_ptr<Item>(item), reason, kind, plugin});
}

template<class Item>
void Aftermath<Item>::takeCrossings(std::shared_ptr<Watermark> watermark)
{
    more().watermarks.push_back(std::move(watermark));
}

template<class Item>
typename Aftermath<Item>::More& Aftermath<Item>::more()
{
    if (!m_more)
        m_more.reset(new More);
    return *m_more;
}

template<class Item>
void Aftermath<Item>::makeMoreRoom()
{
    auto& items = more().items;
    if (items.size() == items.capacity())
        items.reserve(std::max<std::size_t>(8, 2 * items.size()));
}

template<class Item>
void Aftermath<Item>::finishAll()
{
    m_superseded.reset();
    if (!m_more)
        return;
    const auto all = std::move(m_more);
    for (const auto& displaced : all->items) {
        if (displaced.reason) {
            LostItems::instance().note(*displaced.item, *displaced.reason, displaced.kind,
                                       displaced.plugin);
        }
    }
    all->items.clear();
    for (const auto& watermark : all->watermarks)
        watermark->tell();
}

template class Aftermath<MsgQueueItem>;
template class Aftermath<EventQueueItem>;

} // namespace lxbase::detail
