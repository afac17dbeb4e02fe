/// \file
/// What the client calls the inboxes of the bus, in tables, messages and labels of metrics.
#ifndef LXCLIENT_INBOXES_H
#define LXCLIENT_INBOXES_H

#include <lxbase/BusMonitor.h>

#include <QString>

namespace lxclient {

/// What an inbox is for, in a word.
inline QString kindName(InboxKind kind)
{
    switch (kind) {
    case InboxKind::Messages:
        return QStringLiteral("messages");
    case InboxKind::Quotations:
        return QStringLiteral("quotations");
    case InboxKind::Events:
        return QStringLiteral("events");
    }
    return QString();
}

/// Whose the inbox is: the ID; "(gone)" for all plugins that have unregistered.
inline QString pluginName(const InboxStatistics& inbox)
{
    return inbox.plugin.isEmpty() ? QStringLiteral("(gone)") : inbox.plugin;
}

} // namespace lxclient

#endif
