// PluginHost: loads the plugins, leads them through their life and unloads them.
#ifndef LXCLIENT_PLUGINHOST_H
#define LXCLIENT_PLUGINHOST_H

#include "MetaData.h"

#include <lxclient/Plugin.h>

#include <QMap>
#include <QStringList>
#include <QVariantMap>
#include <QVector>

#include <functional>
#include <memory>
#include <vector>

class QObject;

// What one participant reports, under its ID.
struct NamedReport
{
    QString id;
    lxclient::Report report;
};

// On the main thread. See <lxclient/Plugin.h> for what is called when. Errors name the file of the
// library that they are about.
class PluginHost
{
public:
    PluginHost();
    // Shuts down what is still initialised, in reverse order, and unloads.
    ~PluginHost();
    Q_DISABLE_COPY(PluginHost)

    // Reads the metadata of every library in the folders, without loading one. What is named like a
    // library and is none that could be read, a broken link say, is warned of and passed over; a
    // library that is met again, by another link or because its folder is named twice, is the same
    // one. Called first.
    lxclient::Error readMetaData(const QStringList& folders);

    // In the order of the IDs.
    QVector<MetaData> metaData() const;

    // Gives settings that plugins have declared the values that the user has written, by name; the
    // others have their defaults.
    lxclient::Error set(const QMap<QString, QString>& texts);

    // Loads the libraries and makes the plugin objects. `common` are the settings of the host,
    // which may say how many objects of a class there are, or that a library is not needed.
    lxclient::Error load(const QVariantMap& common);

    // IDs of all plugin objects, in the order in which they are initialised.
    QStringList ids() const;

    // Initialises the object of this ID with `common` and what its plugin has declared.
    lxclient::Error initialise(const QString& id, const QVariantMap& common);

    void startInputs();
    void stopInputs();
    bool inputsEnded() const;

    // Says before each plugin's shutDown, which waits for its handlers, whose it is. Who is still
    // registered on the bus afterwards is unregistered, and reported with that as a fault.
    void shutDown(const std::function<void(const QString& id)>& next);

    QVector<NamedReport> reports() const;

private:
    void unregisterForgotten();

    struct Library;
    struct Instance
    {
        QString id;
        const Library* library = nullptr;
        std::unique_ptr<QObject> owned; // null for the root object, which is the loader's
        lxclient::Plugin* plugin = nullptr;
        lxclient::Input* input = nullptr; // null: no input
        bool initialised = false;
    };

    lxclient::Error readFolder(const QString& folder);
    lxclient::Error addLibrary(Library library);
    lxclient::Error makeInstances(const Library& library, const QVariantMap& common);
    lxclient::Error addInstance(const Library& library, const QString& id, QObject* object,
                                bool owned);

    QStringList m_folders;
    std::vector<Library> m_libraries;  // sorted by ID; unchanged once there are instances
    QStringList m_forgotten;           // IDs whose plugins did not unregister
    std::vector<Instance> m_instances; // destroyed before the libraries are unloaded
};

#endif
