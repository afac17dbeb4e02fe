#include "SupervisedPlugin.h"

#include "ProgressLine.h"

#include <utility>

using lxclient::Error;

SupervisedPlugin::SupervisedPlugin(QString id, const QString& library, CallWatch& watch)
    : m_id(std::move(id))
    , m_name(QStringLiteral("plugin %1 (library %2)").arg(m_id, library))
    , m_utf8_name(m_name.toUtf8())
    , m_watch(watch)
{ }

void SupervisedPlugin::fail(const QString& what, const QString& then)
{
    {
        const QMutexLocker locker(&m_mutex);
        m_faults.append(what);
    }
    m_failed = true;
    ProgressLine::say(QStringLiteral("%1: %2; %3").arg(m_name, what, then));
}

QStringList SupervisedPlugin::faults() const
{
    const QMutexLocker locker(&m_mutex);
    return m_faults;
}

void SupervisedPlugin::entered(const char* handler) noexcept
{
    crashline::exchange({m_utf8_name.constData(), handler});
}

void SupervisedPlugin::left() noexcept
{
    crashline::exchange({});
}

void SupervisedPlugin::threw(const char* handler, const QString& reason)
{
    fail(thrown(handler, reason).words(), QStringLiteral("it is shut down"));
}

Error SupervisedPlugin::thrown(const char* operation, const QString& reason)
{
    return Error(QStringLiteral("%1 has thrown: %2").arg(QLatin1String(operation), reason));
}
