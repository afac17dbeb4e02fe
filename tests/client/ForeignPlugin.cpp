// A plugin of the framework, but of another program.
#include <QObject>
#include <QtPlugin>

class ForeignPlugin : public QObject
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID "another.Program/1")
};

#include "ForeignPlugin.moc"
