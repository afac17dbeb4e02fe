#include "PluginHost.h"

#include <lxbase/MessageInterface.h>

#include <QCoreApplication>
#include <QDir>
#include <QEvent>
#include <QJsonObject>
#include <QLibrary>
#include <QPluginLoader>

#include <algorithm>
#include <utility>

using lxclient::Error;

struct PluginHost::Library
{
    QString id;
    QString instances_setting; // empty: there is one, the root object
    std::unique_ptr<QPluginLoader> loader;

    QString file() const { return loader->fileName(); }
};

PluginHost::PluginHost() = default;

PluginHost::~PluginHost()
{
    shutDown();
    // workers of the bus that the plugins' objects had, before their libraries go
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    m_instances.clear();
    for (auto library = m_libraries.rbegin(); library != m_libraries.rend(); ++library)
        library->loader->unload();
}

Error PluginHost::load(const QString& folder, const QVariantMap& settings)
{
    const QDir dir(folder);
    if (!dir.exists())
        return Error(QStringLiteral("there is no such plugin folder")).about(folder);
    const QFileInfoList files = dir.entryInfoList(QDir::Files, QDir::Name);
    for (const QFileInfo& file : files) {
        if (!QLibrary::isLibrary(file.fileName()))
            continue;
        Library library;
        library.loader = std::make_unique<QPluginLoader>(file.absoluteFilePath());
        // when it is loaded, not in the middle of a run
        library.loader->setLoadHints(QLibrary::ResolveAllSymbolsHint);
        if (const Error error = addLibrary(std::move(library)))
            return error.about(file.absoluteFilePath());
    }
    std::sort(m_libraries.begin(), m_libraries.end(),
              [](const Library& a, const Library& b) { return a.id < b.id; });
    for (const Library& library : m_libraries) {
        if (const Error error = makeInstances(library, settings))
            return error.about(library.file());
    }
    const bool anyInput = std::any_of(m_instances.begin(), m_instances.end(),
                                      [](const Instance& instance) { return instance.input; });
    return anyInput ? Error()
                    : Error(QStringLiteral("no plugin there brings in quotes")).about(folder);
}

QStringList PluginHost::ids() const
{
    QStringList ids;
    for (const Instance& instance : m_instances)
        ids.append(instance.id);
    return ids;
}

Error PluginHost::initialise(const QString& id, const QVariantMap& settings)
{
    for (Instance& instance : m_instances) {
        if (instance.id != id)
            continue;
        if (const Error error = instance.plugin->initialise(id, settings)) {
            return error.about(QStringLiteral("plugin %1 cannot start").arg(id))
                .about(instance.library->file());
        }
        instance.initialised = true;
    }
    return {};
}

void PluginHost::startInputs()
{
    for (const Instance& instance : m_instances) {
        if (instance.input)
            instance.input->start();
    }
}

void PluginHost::stopInputs()
{
    for (const Instance& instance : m_instances) {
        if (instance.input)
            instance.input->stop();
    }
}

bool PluginHost::inputsEnded() const
{
    return std::all_of(m_instances.begin(), m_instances.end(), [](const Instance& instance) {
        return !instance.input || instance.input->ended();
    });
}

void PluginHost::shutDown()
{
    for (auto instance = m_instances.rbegin(); instance != m_instances.rend(); ++instance) {
        if (std::exchange(instance->initialised, false))
            instance->plugin->shutDown();
    }
}

QVector<NamedReport> PluginHost::reports() const
{
    QVector<NamedReport> reports;
    for (const Instance& instance : m_instances)
        reports.append({instance.id, instance.plugin->report()});
    return reports;
}

// What is no plugin of ours is refused before it is loaded.
Error PluginHost::addLibrary(Library library)
{
    const QJsonObject json = library.loader->metaData();
    if (json.isEmpty())
        return Error(QStringLiteral("cannot be loaded: %1").arg(library.loader->errorString()));
    const QString offered = json.value(QStringLiteral("IID")).toString();
    if (offered != QLatin1String(LxClientPlugin_iid)) {
        return Error(QStringLiteral("lacks the interface %1, it offers \"%2\"")
                         .arg(QStringLiteral(LxClientPlugin_iid), offered));
    }
    const QJsonObject ours = json.value(QStringLiteral("MetaData")).toObject();
    library.id = ours.value(QStringLiteral("id")).toString();
    library.instances_setting = ours.value(QStringLiteral("instances")).toString();
    if (!library.loader->load())
        return Error(QStringLiteral("cannot be loaded: %1").arg(library.loader->errorString()));
    if (library.id.isEmpty() || library.id.contains(QLatin1Char('#')))
        return Error(QStringLiteral("its metadata names no \"id\", or one with a #"));
    for (const Library& other : m_libraries) {
        if (other.id == library.id)
            return Error(QStringLiteral("repeats the ID %1 of %2").arg(other.id, other.file()));
    }
    m_libraries.push_back(std::move(library));
    return {};
}

Error PluginHost::makeInstances(const Library& library, const QVariantMap& settings)
{
    const QString& id = library.id;
    const QString& setting = library.instances_setting;
    QObject* const root = library.loader->instance();
    if (setting.isEmpty())
        return addInstance(library, id, root, false);

    const int count = settings.value(setting).toInt();
    if (count < 1) {
        return Error(
            QStringLiteral("the setting \"%1\" says how many there are of it, and is not a "
                           "number from 1 on")
                .arg(setting));
    }
    for (int i = 1; i <= count; ++i) {
        const bool first = i == 1;
        QObject* const object = first ? root : root->metaObject()->newInstance();
        if (const Error error =
                addInstance(library, QStringLiteral("%1#%2").arg(id).arg(i), object, !first))
            return error;
    }
    return {};
}

Error PluginHost::addInstance(const Library& library, const QString& id, QObject* object,
                              bool owned)
{
    Instance instance;
    instance.id = id;
    instance.library = &library;
    if (owned)
        instance.owned.reset(object);
    if (!object) {
        return Error(QStringLiteral("makes no object for %1; its class needs a Q_INVOKABLE "
                                    "constructor without arguments")
                         .arg(id));
    }
    instance.plugin = qobject_cast<lxclient::Plugin*>(object);
    instance.input = qobject_cast<lxclient::Input*>(object);
    if (!instance.plugin || !qobject_cast<IMessageInterface*>(object)) {
        return Error(
            QStringLiteral("lacks the interface %1: its class must derive from "
                           "IMessageInterface and from lxclient::Plugin, and name the latter "
                           "in Q_INTERFACES")
                .arg(QStringLiteral(LxClientPlugin_iid)));
    }
    m_instances.push_back(std::move(instance));
    return {};
}
