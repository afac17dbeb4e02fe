// PluginHost: loads the plugins, leads them through their life and unloads them.
#ifndef LXCLIENT_PLUGINHOST_H
#define LXCLIENT_PLUGINHOST_H

#include "CallWatch.h"
#include "MetaData.h"
#include "SupervisedPlugin.h"

#include <lxclient/Plugin.h>

#include <QMap>
#include <QStringList>
#include <QVariantMap>
#include <QVector>

#include <chrono>
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
//
// Every call of a plugin has a deadline, and may throw. A plugin that has thrown has failed: it is
// not called any more, but for its report, and stays what it is in the reports.
class PluginHost
{
public:
    // For the deadline see CallWatch.
    explicit PluginHost(std::chrono::milliseconds deadline = {}, CallWatch::Ending ending = {});
    // Unloads.
    ~PluginHost();
    Q_DISABLE_COPY(PluginHost)

    // Another deadline. Any thread.
    void setDeadline(std::chrono::milliseconds deadline) { m_watch.setDeadline(deadline); }

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

    bool hasGuide() const;

    // Has the guides add to the settings; see lxclient::Guide for when to call it again.
    lxclient::Error prepare(QVariantMap& settings, bool& complete, QString& waitingFor);

    // Initialises the object of this ID with `common` and what its plugin has declared.
    lxclient::Error initialise(const QString& id, const QVariantMap& common);

    // Tells all that they have been initialised.
    void started();

    void startInputs();
    void stopInputs();
    bool inputsEnded() const;

    // Shuts down those that have failed since the last time. True: there was one, now or earlier.
    bool shutDownFailed();

    // Plugins one of whose handlers has not returned for `limit`, each with the inbox in words.
    QMap<QString, QString> stuck(std::chrono::nanoseconds limit) const;

    // Says before each plugin's shutDown, which waits for its handlers, whose it is. Those that are
    // stuck (limit 0: none) come last, and if they are still stuck then, they have failed and are
    // left as they are. The program has to end then without destroying anything; false. Else who is
    // still registered on the bus is unregistered, which is a fault as well.
    bool shutDown(const std::function<void(const QString& id)>& next,
                  std::chrono::nanoseconds stuckLimit);

    // Shuts down what is still initialised, in reverse order, and unloads.
    void unload();

    QVector<NamedReport> reports();

    // As they were the last time, without calling a plugin; the faults are those of now.
    QVector<NamedReport> lastReports() const;

private:
    struct Library;
    struct Instance
    {
        QString id;
        const Library* library = nullptr;
        SupervisedPlugin* supervised = nullptr;
        std::unique_ptr<QObject> owned; // null for the root object, which is the loader's
        lxclient::Plugin* plugin = nullptr;
        lxclient::Input* input = nullptr; // null: no input
        lxclient::Guide* guide = nullptr; // null: none
        bool initialised = false;
        bool reports = true; // false: report has thrown, or may not return
        lxclient::Report last_report;
    };

    SupervisedPlugin& supervise(const QString& id, const QString& library);
    void unregisterForgotten();
    lxclient::Error readFolder(const QString& folder);
    lxclient::Error addLibrary(Library library);
    static lxclient::Error loadLibrary(const Library& library);
    static lxclient::Error makeRoot(const Library& library, QObject*& root);
    static lxclient::Plugin* pluginOf(const Library& library, QObject* object);
    lxclient::Error makeInstances(const Library& library, const QVariantMap& common);
    lxclient::Error addInstance(const Library& library, const QString& id, QObject* object,
                                bool owned);

    template<class Operation>
    void callInput(const Instance& instance, const char* name, const Operation& operation) const;
    static void shutDown(Instance& instance);

    CallWatch m_watch;
    // also of libraries without an object yet; destroyed after the plugins' objects
    std::vector<std::unique_ptr<SupervisedPlugin>> m_supervised;
    // of those, IDs on the bus that were no plugin's own and stayed registered
    std::vector<const SupervisedPlugin*> m_forgotten;

    QStringList m_folders;
    std::vector<Library> m_libraries;  // sorted by ID; unchanged once there are instances
    std::vector<Instance> m_instances; // destroyed before the libraries are unloaded
};

#endif
