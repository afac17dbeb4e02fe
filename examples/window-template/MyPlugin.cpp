#include "MyPlugin.h"

MyPlugin::MyPlugin()
    : WindowAdapter(QuotationThread | EventThread) // what it receives: quotes, selections
{ }

lxclient::Error MyPlugin::onInitialise(const QVariantMap& settings)
{
    m_window =
        std::make_unique<MyWindow>(settings.value(lxclient::setting::Symbols).toStringList());
    m_window->setWindowTitle(id());
    lxclient::WindowHandlers handlers;
    handlers.quotes = [this](const auto& newest) { m_window->showQuotes(newest); };
    handlers.selected = [this](const QString& symbol) { m_window->choose(symbol); };
    const auto frame = ownSetting(settings, QStringLiteral("frame")).toInt();
    setWindow(m_window.get(), handlers, std::chrono::milliseconds(frame));
    // whoever has chosen, the user or a linked window: the adapter knows what is news
    connect(m_window.get(), &MyWindow::chosen, this,
            [this](const QString& symbol) { select(symbol); });
    m_window->show();
    return WindowAdapter::onInitialise(settings);
}

void MyPlugin::onShutDown()
{
    WindowAdapter::onShutDown(); // shows the last quotes
    m_window.reset();
}
