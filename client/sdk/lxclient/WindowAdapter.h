/// \file
/// WindowAdapter: a plugin whose handlers run on the thread of a window.
#ifndef LXCLIENT_WINDOWADAPTER_H
#define LXCLIENT_WINDOWADAPTER_H

#include <lxclient/Conflator.h>
#include <lxclient/LinkedSelection.h>
#include <lxclient/PluginBase.h>
#include <lxclient/QuoteAudit.h>

#include <QMutex>
#include <QPointer>

#include <functional>
#include <memory>
#include <utility>

namespace lxclient {

/// What a window wants to be told, each on its own thread. Those that are empty are not called.
struct WindowHandlers
{
    /// The newest quote of each symbol that was quoted since the last call, once a frame.
    std::function<void(const QHash<QString, Quote>& newest)> quotes = nullptr;
    /// A linked window has selected another symbol than this one shows.
    std::function<void(const QString& symbol)> selected = nullptr;
    /// \{
    /// Every message or event, in the order of its inbox.
    std::function<void(const QString& sender, int type, const QVariant& payload)> message = nullptr;
    std::function<void(const QString& sender, int type, const QVariant& payload)> event = nullptr;
    /// \}
};

/// Puts a class on the bus that is a QWidget already, and so cannot derive from IMessageInterface
/// as well: both are a QObject. In a host of one's own the window has the adapter as a member:
///
///     class Board : public QWidget
///     {
///         lxclient::WindowAdapter m_bus{lxclient::PluginBase::QuotationThread};
///     public:
///         lxclient::Error open(const QString& id, const QVariantMap& settings)
///         {
///             m_bus.setWindow(this, {[this](const auto& newest) { show(newest); }});
///             return m_bus.initialise(id, settings);
///         }
///         ~Board() override { m_bus.shutDown(); }
///
/// A plugin of lxclient derives from the adapter and owns its window: see the window template.
///
/// Adapter and window live on the same thread, the main thread normally; everything here is called
/// there. The window may go first: what still comes is then dropped. The adapter goes after
/// shutDown. A handler of the window that throws is treated as PluginBase treats one of its hooks.
class WindowAdapter : public PluginBase
{
public:
    /// `kinds` is what the window receives, combined with |: quotes need QuotationThread,
    /// selections and events EventThread, messages MessageThread.
    explicit WindowAdapter(ThreadType kinds)
        : PluginBase(kinds)
    { }

    /// Whom to tell what. Before initialise, or in onInitialise before that of this class. Not
    /// owned.
    void setWindow(QObject* window, WindowHandlers handlers,
                   std::chrono::milliseconds frame = DefaultFrame)
    {
        m_window = window;
        m_handlers = std::move(handlers);
        m_quotes.reset();
        if (!m_handlers.quotes)
            return;
        const auto show = [this](const QHash<QString, Quote>& newest) {
            guarded("WindowHandlers::quotes", [&] { m_handlers.quotes(newest); });
        };
        m_quotes = std::make_unique<Conflator<QString, Quote>>(window, show, frame);
    }

    /// The user has selected a symbol: the linked windows follow, if it is another one. The
    /// widget's signal may be connected to this, see LinkedSelection.
    void select(const QString& symbol) { m_selection.select(symbol); }

    /// What is selected, by the user or by a linked window; the first symbol at the beginning.
    QString selected() const { return m_selection.symbol(); }

    /// \{
    /// As in PluginBase, for a window that has the adapter as a member.
    using PluginBase::broadcast;
    using PluginBase::id;
    using PluginBase::publish;
    using PluginBase::request;
    using PluginBase::send;
    using PluginBase::subscribe;
    using PluginBase::subscribeEvent;
    /// \}

    /// What was received, and what is selected.
    Report report() const override
    {
        Report report;
        {
            const QMutexLocker locker(&m_mutex);
            m_audit.post(report);
        }
        m_selection.post(report);
        report.messages = m_messages;
        report.events += m_events;
        if (!m_selection.symbol().isEmpty())
            report.remarks.append(QStringLiteral("shows ") + m_selection.symbol());
        return report;
    }

protected:
    /// Subscribes to all quotes, if the window wants them.
    Error onInitialise(const QVariantMap& settings) override
    {
        const QStringList symbols = settings.value(setting::Symbols).toStringList();
        m_selection.begin(id(), symbols.value(0), settings);
        if (m_quotes) {
            m_audit.expect(symbols);
            subscribeQuotes(settings);
        }
        return {};
    }

    /// Shows the last quotes.
    void onShutDown() override
    {
        if (m_quotes)
            m_quotes->stop();
    }

    /// \{
    /// On the workers of the bus: hand over.
    void onQuote(const Quote& quote) override
    {
        if (m_quotes)
            m_quotes->put(quote.symbol, quote);
        const QMutexLocker locker(&m_mutex);
        m_audit.count(quote);
    }
    void onMessage(const QString& sender, int type, const QVariant& payload) override
    {
        onTheWindowsThread([=] {
            if (m_window && m_handlers.message)
                guarded("WindowHandlers::message",
                        [&] { m_handlers.message(sender, type, payload); });
            ++m_messages;
        });
    }
    void onEvent(const QString& sender, int type, const QVariant& payload) override
    {
        onTheWindowsThread([=] {
            if (type == SelectionType) {
                if (m_selection.follow(sender, payload) && m_window && m_handlers.selected)
                    guarded("WindowHandlers::selected",
                            [&] { m_handlers.selected(m_selection.symbol()); });
                return;
            }
            if (m_window && m_handlers.event)
                guarded("WindowHandlers::event", [&] { m_handlers.event(sender, type, payload); });
            ++m_events;
        });
    }
    /// \}

private:
    // Addressed to the adapter, which outlives its handlers; the window may have gone by then. What
    // it does not see any more is counted all the same, or the ledger would not balance.
    template<class Function>
    void onTheWindowsThread(Function function)
    {
        QMetaObject::invokeMethod(this, std::move(function), Qt::QueuedConnection);
    }

    // used on the window's thread alone
    QPointer<QObject> m_window;
    WindowHandlers m_handlers;
    quint64 m_messages = 0;
    quint64 m_events = 0;

    LinkedSelection m_selection;
    std::unique_ptr<Conflator<QString, Quote>>
        m_quotes; // constant after initialise; null: no quotes

    mutable QMutex m_mutex;
    QuoteAudit m_audit; // guarded by m_mutex
};

} // namespace lxclient

#endif
