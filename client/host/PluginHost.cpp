#include "PluginHost.h"

#include "BusTables.h"
#include "ProgressLine.h"

#include <lxbase/BusMonitor.h>
#include <lxbase/MessageInterface.h>
#include <lxclient/Inboxes.h>
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
    QVariantMap settings;                   // what it has declared, with its values
    bool has_version_2 = false;             // of the interface: report is its last operation
    SupervisedPlugin* supervised = nullptr; // once it is loaded

    QString file() const { return loader->fileName(); }
};

namespace {

const char version2Iid[] = "lxclient.Plugin/2";

// as messages name them
const char initialiserOperation[] = "an initialiser of its library";
const char constructorOperation[] = "its constructor";

Error cannotStart(const QString& id, const Error& reason)
{
    return reason.about(QStringLiteral("plugin %1 cannot start").arg(id));
}

// Why what is named like a library cannot be one; empty: it may be.
QString flawOf(const QFileInfo& entry)
{
    if (entry.isSymLink() && !entry.exists())
        return QStringLiteral("is a broken link to %1").arg(entry.symLinkTarget());
    if (entry.isDir())
        return QStringLiteral("is a folder, not a library");
    return entry.isFile() ? QString() : QStringLiteral("is no file");
}

QStringList registeredIds()
{
    QStringList ids;
    const QVector<InboxStatistics> inboxes = CBusMonitor::statistics().inboxes;
    for (const InboxStatistics& inbox : inboxes) {
        if (!inbox.plugin.isEmpty()
            && !ids.contains(inbox.plugin)) // without: of those that have gone
            ids.append(inbox.plugin);
    }
    return ids;
}

// No name is in both: plugins declare none of the host's.
QVariantMap united(QVariantMap common, const QVariantMap& own)
{
    for (auto it = own.constBegin(); it != own.constEnd(); ++it)
        common.insert(it.key(), it.value());
    return common;
}

} // namespace

PluginHost::PluginHost(std::chrono::milliseconds deadline, CallWatch::Ending ending)
    : m_watch(deadline, std::move(ending))
{ }

PluginHost::~PluginHost()
{
    unload();
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
        const QString& unless = library.meta_data.unless;
        return (!needs.isEmpty() && !common.contains(needs))
            || (!unless.isEmpty() && common.contains(unless));
    };
    m_libraries.erase(std::remove_if(m_libraries.begin(), m_libraries.end(), isNeedless),
                      m_libraries.end());
    // first those with payload types: until they go, last, the types are theirs
    for (const bool payloads : {true, false}) {
        for (Library& library : m_libraries) {
            if (library.meta_data.payloads != payloads)
                continue;
            library.supervised = &supervise(library.meta_data.id, library.file());
            if (const Error error = loadLibrary(library))
                return error.about(library.file());
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

bool PluginHost::hasGuide() const
{
    return std::any_of(m_instances.begin(), m_instances.end(),
                       [](const Instance& instance) { return instance.guide; });
}

Error PluginHost::prepare(QVariantMap& settings, bool& complete, QString& waitingFor)
{
    complete = true;
    for (const Instance& instance : m_instances) {
        if (!instance.guide)
            continue;
        QVariantMap given = united(settings, instance.library->settings);
        bool knows = false;
        Error error;
        const Error thrown = instance.supervised->call(
            "prepare", [&] { error = instance.guide->prepare(given, knows, waitingFor); });
        if (thrown)
            error = thrown;
        if (error)
            return cannotStart(instance.id, error).about(instance.library->file());
        complete = complete && knows;
        for (auto it = given.constBegin(); it != given.constEnd(); ++it) {
            if (!instance.library->settings.contains(it.key()))
                settings.insert(it.key(), it.value());
        }
    }
    return {};
}

Error PluginHost::initialise(const QString& id, const QVariantMap& common)
{
    for (Instance& instance : m_instances) {
        if (instance.id != id)
            continue;
        QVariantMap settings = united(common, instance.library->settings);
        settings.insert(lxclient::setting::Supervisor,
                        QVariant::fromValue<lxclient::Supervisor*>(instance.supervised));
        Error error;
        const Error thrown = instance.supervised->call(
            "initialise", [&] { error = instance.plugin->initialise(id, settings); });
        if (thrown) {
            error = thrown;
            CRegManager::UnReg(id); // it may have come as far as that
        }
        if (error)
            return cannotStart(id, error).about(instance.library->file());
        instance.initialised = true;
    }
    return {};
}

void PluginHost::started()
{
    for (const Instance& instance : m_instances) {
        if (instance.library->has_version_2)
            continue;
        const Error thrown =
            instance.supervised->call("started", [&] { instance.plugin->started(); });
        if (thrown)
            instance.supervised->fail(thrown.words(), QStringLiteral("it is shut down"));
    }
}

void PluginHost::startInputs()
{
    for (const Instance& instance : m_instances)
        callInput(instance, "start", [&] { instance.input->start(); });
}

void PluginHost::stopInputs()
{
    for (const Instance& instance : m_instances)
        callInput(instance, "stop", [&] { instance.input->stop(); });
}

bool PluginHost::inputsEnded() const
{
    for (const Instance& instance : m_instances) {
        bool ended = true; // one that has failed puts nothing more
        callInput(instance, "ended", [&] { ended = instance.input->ended(); });
        if (!ended)
            return false;
    }
    return true;
}

// Calls it unless it is no input, or is none any more.
template<class Operation>
void PluginHost::callInput(const Instance& instance, const char* name,
                           const Operation& operation) const
{
    if (!instance.input || !instance.initialised || instance.supervised->hasFailed())
        return;
    if (const Error thrown = instance.supervised->call(name, operation))
        instance.supervised->fail(thrown.words(), QStringLiteral("it is shut down"));
}

bool PluginHost::shutDownFailed()
{
    bool any = false;
    for (auto instance = m_instances.rbegin(); instance != m_instances.rend(); ++instance) {
        if (!instance->supervised->hasFailed())
            continue;
        any = true;
        if (instance->initialised)
            shutDown(*instance);
    }
    return any;
}

QMap<QString, QString> PluginHost::stuck(std::chrono::nanoseconds limit) const
{
    QMap<QString, QString> stuck;
    if (limit.count() == 0)
        return stuck;
    const BusStatistics bus = CBusMonitor::statistics();
    for (const InboxStatistics& inbox : bus.inboxes) {
        if (inbox.busyForNs >= limit.count()) {
            stuck.insert(inbox.plugin,
                         QStringLiteral("its handler for %1 has not returned for %2")
                             .arg(inboxKindName(inbox.kind), durationText(inbox.busyForNs)));
        }
    }
    return stuck;
}

bool PluginHost::shutDown(const std::function<void(const QString& id)>& next,
                          std::chrono::nanoseconds stuckLimit)
{
    const QMap<QString, QString> atFirst = stuck(stuckLimit);
    const auto shutDownThose = [&](bool stuckAtFirst, const QMap<QString, QString>& stuckNow) {
        bool all = true;
        for (auto instance = m_instances.rbegin(); instance != m_instances.rend(); ++instance) {
            if (!instance->initialised || atFirst.contains(instance->id) != stuckAtFirst)
                continue;
            if (stuckNow.contains(instance->id)) {
                all = false;
                instance->reports = false; // it may hold what its report waits for
                instance->supervised->fail(stuckNow.value(instance->id),
                                           QStringLiteral("the session ends without it"));
            } else {
                next(instance->id);
                shutDown(*instance);
            }
        }
        return all;
    };
    shutDownThose(false, {});
    const bool all = shutDownThose(true, stuck(stuckLimit));
    if (all)
        unregisterForgotten();
    return all;
}

// Their workers would call into objects and libraries that go away. An ID that is no plugin's own
// was registered by one of them besides.
void PluginHost::unregisterForgotten()
{
    const QString fault = QStringLiteral(
        "was still registered on the bus after shutDown, which has to end with UnReg");
    const auto unregister = [&](SupervisedPlugin& supervised) {
        supervised.fail(fault, QStringLiteral("it is unregistered"));
        static_cast<void>( // waits for the handlers
            supervised.call("UnReg", [&] { CRegManager::UnReg(supervised.id()); }));
    };
    for (const Instance& instance : m_instances) {
        if (registeredIds().contains(instance.id))
            unregister(*instance.supervised);
    }
    const QStringList others = registeredIds();
    for (const QString& id : others) {
        SupervisedPlugin& forgotten = supervise(id, QStringLiteral("of one of the plugins"));
        m_forgotten.push_back(&forgotten);
        unregister(forgotten);
    }
}

// One that throws may still be registered.
void PluginHost::shutDown(Instance& instance)
{
    instance.initialised = false;
    const Error thrown =
        instance.supervised->call("shutDown", [&] { instance.plugin->shutDown(); });
    if (!thrown)
        return;
    instance.supervised->fail(thrown.words(), QStringLiteral("the ledger will not balance"));
    static_cast<void>( // the bus throws nothing, but waits for the handlers
        instance.supervised->call("UnReg", [&] { CRegManager::UnReg(instance.id); }));
}

void PluginHost::unload()
{
    shutDown([](const QString&) {}, {});
    // workers of the bus that the plugins' objects had, before their libraries go
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    const auto destroy = [](SupervisedPlugin* supervised, const auto& owner) {
        // a destructor that throws ends the process, and its name is told
        static_cast<void>(supervised->call("its destructor", owner));
    };
    for (Instance& instance : m_instances)
        destroy(instance.supervised, [&] { instance.owned.reset(); });
    m_instances.clear();
    for (const bool payloads : {false, true}) {
        for (auto library = m_libraries.rbegin(); library != m_libraries.rend(); ++library) {
            if (library->supervised && library->meta_data.payloads == payloads)
                destroy(library->supervised, [&] { library->loader->unload(); });
        }
    }
    m_libraries.clear();
}

QVector<NamedReport> PluginHost::reports()
{
    for (Instance& instance : m_instances) {
        if (!instance.reports)
            continue;
        const Error thrown = instance.supervised->call(
            "report", [&] { instance.last_report = instance.plugin->report(); });
        if (thrown) {
            instance.reports = false;
            instance.supervised->fail(thrown.words(), QStringLiteral("it is shut down"));
        }
    }
    return lastReports();
}

QVector<NamedReport> PluginHost::lastReports() const
{
    QVector<NamedReport> reports;
    for (const Instance& instance : m_instances) {
        reports.append({instance.id, instance.last_report});
        reports.last().report.faults += instance.supervised->faults();
    }
    for (const SupervisedPlugin* const forgotten : m_forgotten) {
        reports.append({forgotten->id(), {}});
        reports.last().report.faults = forgotten->faults();
    }
    return reports;
}

SupervisedPlugin& PluginHost::supervise(const QString& id, const QString& library)
{
    m_supervised.push_back(std::make_unique<SupervisedPlugin>(id, library, m_watch));
    return *m_supervised.back();
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
    library.has_version_2 = offered == QLatin1String(version2Iid);
    if (offered != QLatin1String(LxClientPlugin_iid) && !library.has_version_2) {
        return Error(QStringLiteral("lacks the interface %1, it offers \"%2\"")
                         .arg(QStringLiteral(LxClientPlugin_iid), offered));
    }
    if (const Error error =
            MetaData::read(json.value(QStringLiteral("MetaData")).toObject(), library.meta_data))
        return error;
    for (const Library& other : m_libraries) {
        if (other.meta_data.id == library.meta_data.id
            && !other.meta_data.excludes(library.meta_data))
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

Error PluginHost::loadLibrary(const Library& library)
{
    bool loaded = false;
    if (const Error thrown = library.supervised->call(initialiserOperation,
                                                      [&] { loaded = library.loader->load(); }))
        return thrown;
    if (!loaded)
        return Error(QStringLiteral("cannot be loaded: %1").arg(library.loader->errorString()));
    if (!library.meta_data.payloads || library.has_version_2)
        return {};
    QObject* root = nullptr;
    if (const Error thrown = makeRoot(library, root))
        return thrown;
    lxclient::Plugin* const plugin = pluginOf(library, root);
    if (!plugin)
        return {}; // refused when the instances are made
    const Error thrown =
        library.supervised->call("registerPayloads", [&] { plugin->registerPayloads(); });
    return thrown ? cannotStart(library.meta_data.id, thrown) : Error();
}

// The loader makes it once.
Error PluginHost::makeRoot(const Library& library, QObject*& root)
{
    const Error thrown =
        library.supervised->call(constructorOperation, [&] { root = library.loader->instance(); });
    return thrown ? cannotStart(library.meta_data.id, thrown) : Error();
}

// Null: it is none.
lxclient::Plugin* PluginHost::pluginOf(const Library& library, QObject* object)
{
    if (!library.has_version_2)
        return qobject_cast<lxclient::Plugin*>(object);
    // as qobject_cast would do it; the operations that version 2 has come first in the later one
    // too
    return static_cast<lxclient::Plugin*>(object ? object->qt_metacast(version2Iid) : nullptr);
}

Error PluginHost::makeInstances(const Library& library, const QVariantMap& common)
{
    const QString& id = library.meta_data.id;
    const QString& setting = library.meta_data.instances;
    QObject* root = nullptr;
    if (const Error thrown = makeRoot(library, root))
        return thrown;
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
        QObject* object = root;
        if (!first) {
            if (const Error thrown = library.supervised->call(
                    constructorOperation, [&] { object = root->metaObject()->newInstance(); }))
                return cannotStart(QStringLiteral("%1#%2").arg(id).arg(i), thrown);
        }
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
    instance.supervised = &supervise(id, library.file());
    if (owned)
        instance.owned.reset(object);
    if (!object) {
        return Error(QStringLiteral("makes no object for %1; its class needs a Q_INVOKABLE "
                                    "constructor without arguments")
                         .arg(id));
    }
    instance.plugin = pluginOf(library, object);
    instance.input = qobject_cast<lxclient::Input*>(object);
    instance.guide = qobject_cast<lxclient::Guide*>(object);
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
