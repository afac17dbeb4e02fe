#pragma once

#include <QString>

namespace PluginID {

inline const QString PLUGINNET_GLOBALID = QStringLiteral("SubstituteNet");

} // namespace PluginID
