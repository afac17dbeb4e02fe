/// \file
/// LinkedSelection: the symbol that a window shows, the same in all windows of its colour.
#ifndef LXCLIENT_LINKEDSELECTION_H
#define LXCLIENT_LINKEDSELECTION_H

#include <lxclient/Accounts.h>
#include <lxclient/Protocol.h>
#include <lxclient/Report.h>

#include <lxbase/MessageInterface.h>
#include <lxevent/EventMessageCommon.h>

#include <QMap>
#include <QMutex>

#include <utility>

namespace lxclient {

/// Tells the linked windows what the user selects, and takes over what they select, without sending
/// it round again: only a selection that differs from what the window shows is told. So a window
/// may call select whenever its widget says that the symbol has changed, also when it was the
/// window itself that has set the widget to what another one had selected:
///
///     connect(&m_combo, &QComboBox::currentTextChanged, [&] { m_selection.select(...); });
///     // and in onEvent, handed over to the thread of the window
///     if (type == SelectionType && m_selection.follow(sender, payload))
///         m_combo.setCurrentText(m_selection.symbol());
///
/// Any operation on any thread. But where following makes the widget call select, both belong on
/// the thread of the widget: otherwise they may cross, and two windows send one another their
/// selections for ever. Counts for the ledger.
class LinkedSelection
{
public:
    /// The window's ID, the symbol that it begins with, and the settings of the host, which say who
    /// is linked with it. While the plugin is initialised.
    void begin(const QString& id, const QString& symbol, const QVariantMap& settings)
    {
        const QMutexLocker locker(&m_mutex);
        m_id = id;
        m_symbol = symbol;
        m_linked = settings.value(setting::Linked).toStringList();
    }

    /// What the window shows.
    QString symbol() const
    {
        const QMutexLocker locker(&m_mutex);
        return m_symbol;
    }

    /// The other windows of the same colour.
    QStringList linked() const
    {
        const QMutexLocker locker(&m_mutex);
        return m_linked;
    }

    /// The window shows this symbol now. True if it did not already; the linked windows have then
    /// been told.
    bool select(const QString& symbol)
    {
        QString id;
        {
            const QMutexLocker locker(&m_mutex);
            if (std::exchange(m_symbol, symbol) == symbol)
                return false;
            ++m_put;
            id = m_id;
        }
        CRegManager::PutEvent(id,
                              new CEventMessageCommon(id, QString(), SelectionType,
                                                      QVariant::fromValue(Selection{symbol})));
        return true;
    }

    /// An event of SelectionType. True if the window has to show another symbol than before.
    bool follow(const QString& sender, const QVariant& payload)
    {
        const QString symbol = payload.value<Selection>().symbol;
        const QMutexLocker locker(&m_mutex);
        ++m_received[sender];
        return std::exchange(m_symbol, symbol) != symbol;
    }

    /// Adds the counts to a report, to its events as well.
    void post(Report& report) const
    {
        const QMutexLocker locker(&m_mutex);
        if (!m_linked.isEmpty())
            report.post(account::selectionsOf(m_id), counted::Put, m_put);
        for (const QString& sender : m_linked)
            report.post(account::selectionsOf(sender), m_received.value(sender));
        for (auto it = m_received.begin(); it != m_received.end(); ++it) {
            report.events += it.value();
            if (!m_linked.contains(it.key())) {
                report.faults.append(
                    QStringLiteral("followed %1 without being linked").arg(it.key()));
            }
        }
    }

private:
    mutable QMutex m_mutex;
    // guarded by m_mutex
    QString m_id;
    QStringList m_linked;
    QString m_symbol;
    quint64 m_put = 0;
    QMap<QString, quint64> m_received; // by sender
};

/// Links windows, each of which then has the others in its colour: for a host. A group is filed
/// under the base ID of each window in it, so that each of them reaches the others.
inline void linkWindows(const QStringList& ids, RelationColor_t color)
{
    for (const QString& sender : ids) {
        for (const QString& id : ids) {
            CRegManager::setRelation(sender.section(QLatin1Char('#'), 0, 0), id, SelectionType,
                                     color, IMessageInterface::OperAdd);
        }
    }
}

} // namespace lxclient

#endif
