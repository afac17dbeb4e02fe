/// \file
/// The contract between lxclient and the plugins that it loads.
#ifndef LXCLIENT_PLUGIN_H
#define LXCLIENT_PLUGIN_H

#include <lxclient/Error.h>
#include <lxclient/Report.h>

#include <QString>
#include <QVariantMap>
#include <QtPlugin>

namespace lxclient {

/// A plugin of lxclient is a library with one root object, whose class derives from both
/// IMessageInterface (<lxbase/MessageInterface.h>) and this interface. PluginBase (PluginBase.h)
/// does so and takes over what is alike in all plugins:
///
///     class Board : public lxclient::PluginBase
///     {
///         Q_OBJECT
///         Q_PLUGIN_METADATA(IID LxClientPlugin_iid FILE "board.json")
///         Q_INTERFACES(lxclient::Plugin)
///
/// Metadata (the JSON file), which the host reads and checks before it loads any library:
///  - "id": the plugin's ID on the bus, required, without a "#"; no other plugin has it.
///  - "instances": optional, the name of an int setting that holds a number N: there are then N
///    objects of the class, with the IDs id#1 to id#N. The class needs a constructor without
///    arguments that is declared Q_INVOKABLE.
///  - "needs": optional, the name of a setting of the host. Without it the library is not loaded.
///  - "unless": optional, likewise: with it the library is not loaded. Two libraries may have the
///    same ID if one needs the setting that the other names here.
///  - "payloads": optional, true if the plugin has payload types of its own: see registerPayloads.
///  - "settings": optional, a list of the settings that the user can give with --set NAME=VALUE:
///
///        { "name": "orders.max-open", "type": "int", "default": 1000, "min": 1,
///          "description": "So many orders may be open at once." }
///
///    Begin the name with the plugin's ID, for no other plugin may declare it. "type" is int,
///    double, string or bool; "min" and "max" are optional, for numbers.
///
/// One plugin at least must be an Input.
///
/// Life, all on the host's main thread, which runs an event loop:
///  1. Every library in the plugin folders that is needed is loaded and its root object made.
///     Constructors touch neither the bus nor anything that can fail. Those with payload types of
///     their own come first: each is loaded, and registerPayloads called, before the next one.
///  2. initialise, in the order of the IDs. The bus has been started.
///  3. started, in the same order, when all have been initialised. Then those that are an Input as
///     well are started: whoever subscribes in initialise misses nothing.
///  4. report, as often as the host likes, also while handlers run.
///  5. The inputs have ended, by themselves or stopped at an interruption, and the host waits until
///     the ledger balances and stands still; it gives up when nothing has moved for 30 seconds.
///  6. shutDown, in the reverse order of 2.
///  7. report, once more; then the object is destroyed and its library unloaded, libraries with
///     payload types last.
///
/// Another way to the end: if a library is refused or an initialise fails, those already
/// initialised are shut down in reverse order and the client ends with exit code 2.
///
/// A plugin that fails is named, with its library, the operation and the reason, and is a fault of
/// the ledger: the client then ends with exit code 3. What throws counts as failed: a constructor,
/// registerPayloads or initialise as an initialise that fails; one that has thrown anywhere else is
/// shut down at once, while the others go on. (A handler that throws is caught by PluginBase; with
/// another base class it ends the process.) No operation may take longer than the deadline, 10
/// seconds unless the user says otherwise (--plugin-deadline): the client then ends without the
/// plugins that are not shut down yet. A plugin with a handler that has not returned for as long is
/// shut down after all others, or not at all.
///
/// The host owns the objects. Nothing of a plugin may outlive its shutDown: no thread, no timer, no
/// registration on the bus, no value of a type of its own in somebody else's hands; the library's
/// code goes away soon after.
///
/// The handlers of IMessageInterface are called on the bus's worker threads, never on the main
/// thread: whatever they share with the operations below needs a lock. Hold it briefly, and never
/// while you put to the bus or wait for a thread.
class Plugin
{
public:
    /// On the main thread, after shutDown.
    virtual ~Plugin() = default;

    /// Registers on the bus under `id`, subscribes, and makes ready. `id` is the ID of the
    /// metadata, with #1, #2, ... for one of several instances. `settings` has those that the
    /// metadata declares, each with a value of its type (int: qlonglong) within its range, and the
    /// host's own (see Protocol.h). If it fails, nothing is left behind (no registration, no
    /// thread), and shutDown is not called.
    virtual Error initialise(const QString& id, const QVariantMap& settings) = 0;

    /// Ends what initialise began: unregisters first, then releases. Called once if initialise
    /// succeeded. Who is still registered when all have been shut down is a fault of the ledger,
    /// under the ID with which he is. Whatever was put before has been handled by then, unless the
    /// host gave up waiting for it.
    virtual void shutDown() = 0;

    /// What the plugin has to say about itself at the moment; quick, and without side effects.
    /// Called from the end of initialise on, after shutDown as well: keep the figures.
    virtual Report report() const = 0;

    /// All plugins have been initialised, and nothing has come in yet: now the others can be asked.
    /// Called once, if all initialise succeeded.
    virtual void started() { }

    /// Calls qRegisterMetaType for the payload types that the plugin's library defines, and nothing
    /// else. The framework keeps the functions of whoever registers a type first; so if two plugins
    /// share one, each defining it from the same header, both say "payloads" in their metadata, and
    /// the functions belong to a library that is there as long as anybody can hold a value. Called
    /// on the root object, before any plugin without "payloads" is loaded.
    virtual void registerPayloads() { }
};

/// A plugin that brings something in by itself (the net plugin brings quotes). In addition:
///
///     Q_INTERFACES(lxclient::Plugin lxclient::Input)
///
/// All called on the main thread.
class Input
{
public:
    /// On the main thread, after shutDown.
    virtual ~Input() = default;

    /// Begins to put, on a thread of its own. Called once.
    virtual void start() = 0;

    /// Asks it to put nothing more; returns at once. It has followed when ended() says so. May come
    /// several times, and after the end.
    virtual void stop() = 0;

    /// Whether it will put nothing more, because it is through or was stopped.
    virtual bool ended() const = 0;
};

/// A plugin that knows before the session begins what the host cannot know, because the client is
/// part of something larger. In addition:
///
///     Q_INTERFACES(lxclient::Plugin lxclient::Guide)
///
/// Called on the main thread.
class Guide
{
public:
    /// On the main thread, after shutDown.
    virtual ~Guide() = default;

    /// Adds to the settings of the host, such as "symbols". Called before any plugin is
    /// initialised, and again every 20 ms until `complete` is set, or the user has had enough.
    /// Each call is quick. An error ends the session. Without one, `waitingFor` may say in words
    /// what is missing.
    virtual Error prepare(QVariantMap& settings, bool& complete, QString& waitingFor) = 0;
};

} // namespace lxclient

/// \{
/// The names of the interfaces. The number grows with every change, and the host refuses plugins
/// that were compiled before a change that breaks them. Plugin/2 ends with report, and is loaded.
#define LxClientPlugin_iid "lxclient.Plugin/3"
#define LxClientInput_iid "lxclient.Input/1"
#define LxClientGuide_iid "lxclient.Guide/1"
/// \}
Q_DECLARE_INTERFACE(lxclient::Plugin, LxClientPlugin_iid)
Q_DECLARE_INTERFACE(lxclient::Input, LxClientInput_iid)
Q_DECLARE_INTERFACE(lxclient::Guide, LxClientGuide_iid)

#endif
