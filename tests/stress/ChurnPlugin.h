// ChurnVisitor: what the churn program drives of a plugin that it loads.
#ifndef LXSTRESS_CHURNPLUGIN_H
#define LXSTRESS_CHURNPLUGIN_H

#include <QString>
#include <QtPlugin>

class ChurnVisitor
{
public:
    virtual ~ChurnVisitor() = default;

    // Registers under `id` and subscribes to messages, quotations and events of `type`. What
    // arrives is answered with a message to `home`.
    virtual void enter(const QString& id, const QString& home, int type) = 0;

    // Unregisters. A handler that is entered after that ends the program.
    virtual void leave() = 0;

    // How often its message, event and quotation handlers have run.
    virtual int messages() const = 0;
    virtual int events() const = 0;
    virtual int quotations() const = 0;
};

#define ChurnVisitor_iid "lxstress.ChurnVisitor"
Q_DECLARE_INTERFACE(ChurnVisitor, ChurnVisitor_iid)

#endif
