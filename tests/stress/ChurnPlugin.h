// ChurnVisitor: what the churn program drives of a plugin that it loads.
#ifndef LXSTRESS_CHURNPLUGIN_H
#define LXSTRESS_CHURNPLUGIN_H

#include <QtPlugin>

#include <atomic>

// Visitor N has the ID "churn#N" and wants this type of messages, quotations and events.
#define CHURN_TYPE "churn.visit"

// The plugin that stays, and the type of the events that it puts to its relation group.
#define CHURN_BASE "churn"
#define CHURN_HOME CHURN_BASE "#home"
constexpr int churnRelatedType = 7;

class ChurnVisitor
{
public:
    virtual ~ChurnVisitor() = default;

    // Registers, subscribes, and forms a relation group with the plugin that stays. Every message
    // is answered with one to that plugin.
    virtual void enter() = 0;

    // Unregisters. A handler that is entered after that ends the program.
    virtual void leave() = 0;

    // What has come so far: the kinds of traffic, and this for an event of its relation group.
    static constexpr int RelatedEvents = 1;
    std::atomic<int> received{0};
};

#define ChurnVisitor_iid "lxstress.ChurnVisitor"
Q_DECLARE_INTERFACE(ChurnVisitor, ChurnVisitor_iid)

#endif
