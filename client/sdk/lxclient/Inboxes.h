/// \file
/// What the client calls those whose the inboxes are, in tables, messages and labels of metrics.
#ifndef LXCLIENT_INBOXES_H
#define LXCLIENT_INBOXES_H

#include <lxbase/BusMonitor.h>

#include <QString>

namespace lxclient {

/// Whose the inbox is: the ID; "(gone)" for all plugins that have unregistered.
inline QString pluginName(const InboxStatistics& inbox)
{
    return inbox.plugin.isEmpty() ? QStringLiteral("(gone)") : inbox.plugin;
}

} // namespace lxclient

#endif
