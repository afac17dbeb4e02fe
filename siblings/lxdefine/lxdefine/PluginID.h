/// \file
/// Well-known plugin IDs of the client, shared by every library that addresses a plugin by name.
#ifndef LXDEFINE_PLUGINID_H
#define LXDEFINE_PLUGINID_H

#include <QString>

namespace PluginID {

/// The plugin that holds the client's network connection. What it hands in is delivered to the
/// others with this ID as sender; broadcasts flagged "send to net" are delivered to it as well.
inline const QString PLUGINNET_GLOBALID = QStringLiteral("PluginNet");

} // namespace PluginID

#endif
