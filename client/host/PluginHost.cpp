#include "PluginHost.h"

#include "ProgressLine.h"

#include <lxbase/BusMonitor.h>
#include <lxbase/MessageInterface.h>
#include <lxclient/Protocol.h>

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
    std::unique_ptr<QPluginLoader> loader;
    QString canonical_file; // wherever links to it are
    MetaData meta_data;
    QVariantMap settings; // what it has declared, with its values

    QString file() const { return loader->fileName(); }
};

namespace {

// Why what is named like a library cannot be one; empty: it may be.
QString flawOf(const QFileInfo& entry)
{
    if (entry.isSymLink() && !entry.exists())
        return QStringLiteral("is a broken link to %1").arg(entry.symLinkTarget());
    if (entry.isDir())
        return QStringLiteral("is a folder, not a library");
    return entry.isFile() ? QString() : QStringLiteral("is no file");
}

// No name is in both: plugins declare none of the host's.
QVariantMap united(QVariantMap common, const QVariantMap& own)
{
    for (auto it = own.constBegin(); it != own.constEnd(); ++it)
        common.insert(it.key(), it.value());
    return common;
}

} // namespace

PluginHost::PluginHost() = default;

PluginHost::~PluginHost()
{
    shutDown([](const QString&) {});
    // workers of the bus that the plugins' objects had, before their libraries go
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    m_instances.clear();
    for (auto library = m_libraries.rbegin(); library != m_libraries.rend(); ++library)
        library->loader->unload();
}

Error PluginHost::readMetaData(const QStringList& folders)
{
    m_folders = folders;
    for (const QString& folder : folders) {
        if (const Error error = readFolder(folder))
            return error;
    }
    std::sort(m_libraries.begin(), m_libraries.end(),
              [](const Library& a, const Library& b) { return a.meta_data.id < b.meta_data.id; });
    return {};
}

QVector<MetaData> PluginHost::metaData() const
{
    QVector<MetaData> all;
    for (const Library& library : m_libraries)
        all.append(library.meta_data);
    return all;
}

Error PluginHost::set(const QMap<QString, QString>& texts)
{
    QMap<QString, QString> left = texts;
    QStringList known;
    for (Library& library : m_libraries) {
        for (const Setting& setting : qAsConst(library.meta_data.settings)) {
            known.append(setting.name);
            if (!left.contains(setting.name))
                continue;
            const QString text = left.take(setting.name);
            if (const Error error = setting.parse(text, library.settings[setting.name]))
                return error.about(QStringLiteral("--set %1=%2").arg(setting.name, text));
        }
    }
    if (left.isEmpty())
        return {};
    const QString name = left.firstKey();
    const Error error = lxclient::setting::ofTheHost().contains(name)
        ? Error(QStringLiteral("is set by the client itself; see --help for its options"))
        : Error(
            QStringLiteral("no plugin has this setting; there are %1")
                .arg(known.isEmpty() ? QStringLiteral("none") : known.join(QLatin1String(", "))));
    return error.about(QStringLiteral("--set %1").arg(name));
}

Error PluginHost::load(const QVariantMap& common)
{
    const auto isNeedless = [&](const Library& library) {
        const QString& needs = library.meta_data.needs;
        return !needs.isEmpty() && !common.contains(needs);
    };
    m_libraries.erase(std::remove_if(m_libraries.begin(), m_libraries.end(), isNeedless),
                      m_libraries.end());
    for (const Library& library : m_libraries) {
        if (!library.loader->load()) {
            return Error(QStringLiteral("cannot be loaded: %1").arg(library.loader->errorString()))
                .about(library.file());
        }
    }
    for (const Library& library : m_libraries) {
        if (const Error error = makeInstances(library, common))
            return error.about(library.file());
    }
    const bool anyInput = std::any_of(m_instances.begin(), m_instances.end(),
                                      [](const Instance& instance) { return instance.input; });
    return anyInput ? Error()
                    : Error(QStringLiteral("no plugin there brings in quotes"))
                          .about(m_folders.join(QLatin1String(", ")));
}

QStringList PluginHost::ids() const
{
    QStringList ids;
    for (const Instance& instance : m_instances)
        ids.append(instance.id);
    return ids;
}

Error PluginHost::initialise(const QString& id, const QVariantMap& common)
{
    for (Instance& instance : m_instances) {
        if (instance.id != id)
            continue;
        if (const Error error =
                instance.plugin->initialise(id, united(common, instance.library->settings))) {
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

void PluginHost::shutDown(const std::function<void(const QString& id)>& next)
{
    for (auto instance = m_instances.rbegin(); instance != m_instances.rend(); ++instance) {
        if (std::exchange(instance->initialised, false)) {
            next(instance->id);
            instance->plugin->shutDown();
        }
    }
    unregisterForgotten();
}

// Their workers would call into objects and libraries that go away.
void PluginHost::unregisterForgotten()
{
    const QVector<InboxStatistics> inboxes = CBusMonitor::statistics().inboxes;
    for (const InboxStatistics& inbox : inboxes) {
        if (inbox.plugin.isEmpty() || m_forgotten.contains(inbox.plugin))
            continue;
        m_forgotten.append(inbox.plugin);
        CRegManager::UnReg(inbox.plugin);
    }
}

// An ID that is none of the host's was registered by one of the plugins beside its own.
QVector<NamedReport> PluginHost::reports() const
{
    QVector<NamedReport> reports;
    for (const Instance& instance : m_instances)
        reports.append({instance.id, instance.plugin->report()});
    for (const QString& id : m_forgotten) {
        auto named = std::find_if(reports.begin(), reports.end(),
                                  [&](const NamedReport& report) { return report.id == id; });
        if (named == reports.end())
            named = reports.insert(reports.end(), {id, lxclient::Report()});
        named->report.faults.append(QStringLiteral(
            "was still registered on the bus after shutDown, which has to end with UnReg"));
    }
    return reports;
}

Error PluginHost::readFolder(const QString& folder)
{
    const QDir dir(folder);
    if (!dir.exists())
        return Error(QStringLiteral("there is no such plugin folder")).about(folder);
    const QFileInfoList entries = // broken links and pipes are "system"
        dir.entryInfoList(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot, QDir::Name);
    for (const QFileInfo& entry : entries) {
        if (!QLibrary::isLibrary(entry.fileName()))
            continue;
        const QString file = entry.absoluteFilePath();
        if (const QString flaw = flawOf(entry); !flaw.isEmpty()) {
            ProgressLine::say(QStringLiteral("%1: %2; passed over").arg(file, flaw));
            continue;
        }
        const QString canonicalFile = entry.canonicalFilePath();
        const bool known =
            std::any_of(m_libraries.begin(), m_libraries.end(), [&](const Library& library) {
                return library.canonical_file == canonicalFile;
            });
        if (known)
            continue;
        Library library;
        library.canonical_file = canonicalFile;
        library.loader = std::make_unique<QPluginLoader>(file);
        // when it is loaded, not in the middle of a run
        library.loader->setLoadHints(QLibrary::ResolveAllSymbolsHint);
        if (const Error error = addLibrary(std::move(library)))
            return error.about(file);
    }
    return {};
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
    if (const Error error =
            MetaData::read(json.value(QStringLiteral("MetaData")).toObject(), library.meta_data))
        return error;
    for (const Library& other : m_libraries) {
        if (other.meta_data.id == library.meta_data.id)
            return Error(
                QStringLiteral("repeats the ID %1 of %2").arg(other.meta_data.id, other.file()));
    }
    for (const Setting& setting : qAsConst(library.meta_data.settings)) {
        for (const Library& other : m_libraries) {
            if (other.settings.contains(setting.name)) {
                return Error(
                    QStringLiteral("repeats the setting %1 of %2").arg(setting.name, other.file()));
            }
        }
        library.settings.insert(setting.name, setting.default_value);
    }
    m_libraries.push_back(std::move(library));
    return {};
}

Error PluginHost::makeInstances(const Library& library, const QVariantMap& common)
{
    const QString& id = library.meta_data.id;
    const QString& setting = library.meta_data.instances;
    QObject* const root = library.loader->instance();
    if (setting.isEmpty())
        return addInstance(library, id, root, false);

    const int count = united(common, library.settings).value(setting).toInt();
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
