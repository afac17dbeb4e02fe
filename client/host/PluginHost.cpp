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

QString PluginHost::load(const QString& folder, const QVariantMap& settings)
{
    const QDir dir(folder);
    if (!dir.exists())
        return QStringLiteral("%1: there is no such plugin folder").arg(folder);
    const QFileInfoList files = dir.entryInfoList(QDir::Files, QDir::Name);
    for (const QFileInfo& file : files) {
        if (!QLibrary::isLibrary(file.fileName()))
            continue;
        const QString error = loadLibrary(file.absoluteFilePath());
        if (!error.isEmpty())
            return error;
    }
    std::sort(m_libraries.begin(), m_libraries.end(),
              [](const Library& a, const Library& b) { return a.id < b.id; });
    for (const Library& library : m_libraries) {
        const QString error = makeInstances(library, settings);
        if (!error.isEmpty())
            return error;
    }
    const bool anyInput = std::any_of(m_instances.begin(), m_instances.end(),
                                      [](const Instance& instance) { return instance.input; });
    return anyInput ? QString()
                    : QStringLiteral("%1: no plugin there brings in quotes").arg(folder);
}

QStringList PluginHost::ids() const
{
    QStringList ids;
    for (const Instance& instance : m_instances)
        ids.append(instance.id);
    return ids;
}

QString PluginHost::initialise(const QString& id, const QVariantMap& settings)
{
    for (Instance& instance : m_instances) {
        if (instance.id != id)
            continue;
        QString reason;
        instance.initialised = instance.plugin->initialise(id, settings, reason);
        if (!instance.initialised)
            return QStringLiteral("%1: plugin %2 cannot start: %3").arg(instance.file, id, reason);
    }
    return QString();
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

// The metadata is read without running the library's code; what is no plugin of ours is refused
// before it is loaded.
QString PluginHost::loadLibrary(const QString& file)
{
    Library library;
    library.loader = std::make_unique<QPluginLoader>(file);
    library.loader->setLoadHints(
        QLibrary::ResolveAllSymbolsHint); // now, not in the middle of a run
    const QJsonObject metaData = library.loader->metaData();
    const QString offered = metaData.value(QStringLiteral("IID")).toString();
    if (!metaData.isEmpty() && offered != QLatin1String(LxClientPlugin_iid)) {
        return QStringLiteral("%1: lacks the interface %2, it offers \"%3\"")
            .arg(file, QStringLiteral(LxClientPlugin_iid), offered);
    }
    const QJsonObject ours = metaData.value(QStringLiteral("MetaData")).toObject();
    library.id = ours.value(QStringLiteral("id")).toString();
    library.instances_setting = ours.value(QStringLiteral("instances")).toString();
    if (!library.loader->load()) {
        return QStringLiteral("%1: cannot be loaded: %2").arg(file, library.loader->errorString());
    }
    if (library.id.isEmpty() || library.id.contains(QLatin1Char('#')))
        return QStringLiteral("%1: its metadata names no \"id\", or one with a #").arg(file);
    for (const Library& other : m_libraries) {
        if (other.id == library.id) {
            return QStringLiteral("%1: repeats the ID %2 of %3")
                .arg(file, library.id, other.file());
        }
    }
    m_libraries.push_back(std::move(library));
    return QString();
}

QString PluginHost::makeInstances(const Library& library, const QVariantMap& settings)
{
    QObject* const root = library.loader->instance();
    if (library.instances_setting.isEmpty())
        return addInstance(library, library.id, root, false);

    const int count = settings.value(library.instances_setting).toInt();
    if (count < 1) {
        return QStringLiteral("%1: the setting \"%2\" says how many there are of it, and is not a "
                              "number from 1 on")
            .arg(library.file(), library.instances_setting);
    }
    for (int i = 1; i <= count; ++i) {
        const QString id = QStringLiteral("%1#%2").arg(library.id).arg(i);
        const bool first = i == 1;
        QObject* const object = first ? root : root->metaObject()->newInstance();
        const QString error = addInstance(library, id, object, !first);
        if (!error.isEmpty())
            return error;
    }
    return QString();
}

QString PluginHost::addInstance(const Library& library, const QString& id, QObject* object,
                                bool owned)
{
    Instance instance;
    instance.id = id;
    instance.file = library.file();
    if (owned)
        instance.owned.reset(object);
    if (!object) {
        return QStringLiteral("%1: makes no object for %2; its class needs a Q_INVOKABLE "
                              "constructor without arguments")
            .arg(instance.file, id);
    }
    instance.plugin = qobject_cast<lxclient::Plugin*>(object);
    instance.input = qobject_cast<lxclient::Input*>(object);
    if (!instance.plugin || !qobject_cast<IMessageInterface*>(object)) {
        return QStringLiteral("%1: lacks the interface %2: its class must derive from "
                              "IMessageInterface and from lxclient::Plugin, and name the latter in "
                              "Q_INTERFACES")
            .arg(instance.file, QStringLiteral(LxClientPlugin_iid));
    }
    m_instances.push_back(std::move(instance));
    return QString();
}
