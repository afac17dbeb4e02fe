/// \file
/// LxThread: the base class of the client's threads.
#ifndef LXUTILS_LXTHREAD_H
#define LXUTILS_LXTHREAD_H

#include <lxutils/lxutils_export.h>

#include <QThread>

/// Adds nothing to QThread but a common place in the hierarchy. It has no meta-object of its own,
/// so classes derived from it name QThread as their superclass there.
class LXUTILS_EXPORT LxThread : public QThread
{
public:
    /// `parent` owns the thread object, as with every QObject; null leaves it to the caller.
    explicit LxThread(QObject* parent = nullptr);
    ~LxThread() override;
};

#endif
