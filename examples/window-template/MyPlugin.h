// MyPlugin: a window on the bus. The adapter hands over what comes, to the main thread.
#ifndef MYPLUGIN_H
#define MYPLUGIN_H

#include "MyWindow.h"

#include <lxclient/WindowAdapter.h>

#include <memory>

class MyPlugin : public lxclient::WindowAdapter
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID LxClientPlugin_iid FILE "plugin.json")
    Q_INTERFACES(lxclient::Plugin)
public:
    MyPlugin();

    // Null before it is initialised and after it has been shut down.
    MyWindow* window() const { return m_window.get(); }

private:
    lxclient::Error onInitialise(const QVariantMap& settings) override;
    void onShutDown() override;

    std::unique_ptr<MyWindow> m_window;
};

#endif
