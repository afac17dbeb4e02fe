/// \file
/// Supervisor: what the host learns from PluginBase about the handlers of a plugin.
#ifndef LXCLIENT_SUPERVISOR_H
#define LXCLIENT_SUPERVISOR_H

#include <QMetaType>
#include <QString>

#include <exception>

namespace lxclient {

/// A host that wants to know which plugin's code runs, and which handler has thrown, gives one of
/// these to each plugin object, in the setting "supervisor" of initialise (as a Supervisor*).
/// PluginBase calls it. It belongs to the host and outlives the plugin object.
///
/// All called on the worker threads of the bus and on the main thread, several at once.
class Supervisor
{
public:
    /// A handler begins on this thread. `handler` is its name; it is valid until left().
    virtual void entered(const char* handler) noexcept = 0;

    /// The handler that began on this thread has ended.
    virtual void left() noexcept = 0;

    /// A handler has thrown; no other will be called. `reason` is of exceptionWords.
    virtual void threw(const char* handler, const QString& reason) = 0;

protected:
    ~Supervisor() = default;
};

/// What the exception that is being handled says, in words that can stand behind a colon. Called in
/// a catch block.
inline QString exceptionWords()
{
    try {
        throw;
    } catch (const std::exception& exception) {
        const QString words = QString::fromUtf8(exception.what()).trimmed();
        return words.isEmpty() ? QStringLiteral("an exception that gives no reason") : words;
    } catch (...) {
        return QStringLiteral("something that is no std::exception");
    }
}

} // namespace lxclient

Q_DECLARE_METATYPE(lxclient::Supervisor*)

#endif
