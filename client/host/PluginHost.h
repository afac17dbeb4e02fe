// PluginHost: loads the plugins, leads them through their life and unloads them.
#ifndef LXCLIENT_PLUGINHOST_H
#define LXCLIENT_PLUGINHOST_H

#include <lxclient/Plugin.h>

#include <QStringList>
#include <QVariantMap>
#include <QVector>

#include <memory>
#include <vector>

class QFileInfo;
class QObject;
class QPluginLoader;

// What one participant reports, under its ID.
struct NamedReport
{
    QString id;
    lxclient::Report report;
};

// On the main thread. See <lxclient/Plugin.h> for what is called when.
class PluginHost
{
public:
    PluginHost();
    // Shuts down what is still initialised, in reverse order, and unloads.
    ~PluginHost();
    Q_DISABLE_COPY(PluginHost)

    // Loads every library in the folder and makes the plugin objects. Nothing, or what is wrong
    // with the name of the file.
    QString load(const QString& folder, const QVariantMap& settings);

    // IDs of all plugin objects, in the order in which they are initialised.
    QStringList ids() const;

    // Initialises the object of this ID. Nothing, or what is wrong with the name of its file.
    QString initialise(const QString& id, const QVariantMap& settings);

    void startInputs();
    void stopInputs();
    bool inputsEnded() const;

    void shutDown();

    QVector<NamedReport> reports() const;

private:
    struct Library;
    struct Instance
    {
        QString id;
        QString file;
        std::unique_ptr<QObject> owned; // null for the root object, which is the loader's
        lxclient::Plugin* plugin = nullptr;
        lxclient::Input* input = nullptr; // null: no input
        bool initialised = false;
    };

    QString loadLibrary(const QString& file);
    QString makeInstances(const Library& library, const QVariantMap& settings);
    QString addInstance(const Library& library, const QString& id, QObject* object, bool owned);

    std::vector<Library> m_libraries;
    std::vector<Instance> m_instances; // destroyed before the libraries are unloaded
};

#endif
